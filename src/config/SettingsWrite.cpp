// The settings write: the request's settings laid over the stored ones, a freshly composed
// vector stored, and a running service restarted to pick it up. Settings can be added or
// changed this way, never removed.
#include "config/LaunchArgumentCodec.h"
#include "handler/Constants.h"
#include "handler/Housekeeping.h"
#include "handler/PostgresRequestHandler.h"
#include "handler/RequestError.h"
#include "platform/HostLibrary.h"

namespace velnor::postgres {
namespace {

// The request's "configuration", checked whole before anything changes: a dictionary whose
// values are strings or integers, with the data folder a string. Empty when absent.
PlistDictionary requestedSettings(const PlistDictionary& request) {
    const PlistValue* configuration = request.find("configuration");
    requireKindOrAbsent(configuration, PlistValue::Kind::Dictionary, "\"configuration\"");
    if (!configuration || configuration->isAbsent()) {
        return {};
    }
    const PlistDictionary& settings = *configuration->asDictionary();
    for (const auto& [key, value] : settings) {
        const std::string what = "the setting \"" + key + "\"";
        if (key == kDataDirKey) {
            requireKindOrAbsent(&value, PlistValue::Kind::String, what);
        } else if (!value.asString() && !value.asInteger()) {
            throw RequestError(what + " must be a string or an integer, not a " +
                               kindName(value.kind()));
        }
    }
    return settings;
}

}  // namespace

PlistDictionary PostgresRequestHandler::writeSettingsWithRequest(const PlistDictionary& request) {
    const PlistDictionary requested = requestedSettings(request);
    runHousekeeping(*this);

    const auto stored = platform::getLaunchDaemonServiceConfigArgs(kPostgresJobPlistPath);
    PlistDictionary merged = scanSettings(stored);
    for (const auto& [key, value] : requested) {
        merged.set(key, value);
    }
    platform::setLaunchDaemonServiceConfigArgs(kPostgresJobPlistPath,
                                               composeArguments(stored, merged));

    // Built before the restart, and saying nothing of how it went.
    const PlistDictionary response{{"configuration", PlistValue(std::move(merged))},
                                   {"writeStatus", PlistValue::integer(0)},
                                   {"readStatus", PlistValue::integer(0)}};
    recycleServiceWithVariant(PlistValue());
    return response;
}

}  // namespace velnor::postgres
