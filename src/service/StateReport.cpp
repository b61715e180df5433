// The state report: is the job running, and on request the data folder's condition and whether
// the server answers.
#include <string_view>

#include "config/LaunchArgumentCodec.h"
#include "handler/Constants.h"
#include "handler/Housekeeping.h"
#include "handler/Paths.h"
#include "handler/PostgresRequestHandler.h"
#include "handler/RequestError.h"
#include "platform/FileSystem.h"
#include "platform/HostLibrary.h"
#include "service/LivenessProbe.h"

namespace velnor::postgres {
namespace {

constexpr char kDetailsVariantPrefix[] = "withDetails";
// A version fixed in the plug-in, never read from the server or the data folder.
constexpr char kReportedPostgresVersion[] = "9.0.5";
constexpr std::int64_t kStateReportVersion = 1;
// The response key of the fixed version, and the entry that marks a data folder initialised.
constexpr char kPgVersionName[] = "PG_VERSION";

bool asksForDetails(const PlistDictionary& request) {
    const PlistValue* variant = request.find("variant");
    const std::string* text = variant ? variant->asString() : nullptr;
    return text && std::string_view(*text).starts_with(kDetailsVariantPrefix);
}

void addDataFolderCondition(PlistDictionary& response) {
    // An absent folder (no readable job file) cannot be stored and ends the report, uncaught,
    // like the range error of a vector without "-D".
    const auto dataFolder =
        lookUpDataFolder(platform::getLaunchDaemonServiceConfigArgs(kPostgresJobPlistPath));
    response.set("dataDir", dataFolder ? PlistValue(*dataFolder) : PlistValue());

    bool isDirectory = false;
    const bool exists = platform::fileExists(*dataFolder, &isDirectory);
    const bool initialised = platform::fileExists(joinPath(*dataFolder, kPgVersionName));
    response.set("dataDirExists", PlistValue::boolean(exists));
    response.set("dataDirIsDirectory", PlistValue::boolean(isDirectory));
    response.set("dataDirHasBeenInitialized", PlistValue::boolean(initialised));
}

void addProbeAnswer(PlistDictionary& response) {
    std::int32_t serverVersion = 0;
    const bool responding = postgresIsResponding(&serverVersion);
    response.set("postgresIsResponding", PlistValue::boolean(responding));
    response.set("PGserverVersion", PlistValue::integer(serverVersion));
}

}  // namespace

PlistDictionary PostgresRequestHandler::getStateWithRequest(const PlistDictionary& request) {
    // A malformed request is refused before anything happens.
    requireKindOrAbsent(request.find("variant"), PlistValue::Kind::String, "\"variant\"");

    // The state is read before any folder work, so the report shows the state found on entry.
    const bool running = platform::getLaunchDaemonServiceState(kPostgresJobLabel);
    PlistDictionary response;
    response.set("state", PlistValue(running ? "RUNNING" : "STOPPED"));
    runHousekeeping(*this);

    if (!asksForDetails(request)) {
        return response;
    }
    response.set(kPgVersionName, PlistValue(kReportedPostgresVersion));
    response.set("setStateVersion", PlistValue::integer(kStateReportVersion));
    addDataFolderCondition(response);
    addProbeAnswer(response);
    return response;
}

}  // namespace velnor::postgres
