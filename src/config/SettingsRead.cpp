// The settings read: every setting in the launch arguments, and the data folder.
#include "config/LaunchArgumentCodec.h"
#include "handler/Constants.h"
#include "handler/PostgresRequestHandler.h"
#include "housekeeping/Housekeeping.h"
#include "platform/HostLibrary.h"

namespace velnor::postgres {

PlistDictionary PostgresRequestHandler::readSettingsWithRequest(const PlistDictionary&) {
    runHousekeeping(*this);
    PlistDictionary response;
    response.set("configuration",
                 PlistValue(scanSettingsAndDataFolder(
                     platform::getLaunchDaemonServiceConfigArgs(kPostgresJobPlistPath))));
    response.set("readStatus", PlistValue::integer(0));
    return response;
}

}  // namespace velnor::postgres
