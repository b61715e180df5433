// The settings read: every setting in the launch arguments, and the data folder.
#include "config/LaunchArgumentCodec.h"
#include "handler/Constants.h"
#include "handler/Housekeeping.h"
#include "handler/PostgresRequestHandler.h"
#include "platform/HostLibrary.h"

namespace velnor::postgres {

PlistDictionary PostgresRequestHandler::readSettingsWithRequest(const PlistDictionary&) {
    runHousekeeping(*this);
    const auto stored = platform::getLaunchDaemonServiceConfigArgs(kPostgresJobPlistPath);
    return {{"configuration", PlistValue(scanSettingsAndDataFolder(stored))},
            {"readStatus", PlistValue::integer(0)}};
}

}  // namespace velnor::postgres
