// The log-path report: where the server writes its log file, as the job file says it.
//
// Deliberately no housekeeping here: asking for the log path creates no folder and never
// triggers the log-directory migration. Nothing is checked on disk either.
#include "config/LaunchArgumentCodec.h"
#include "handler/Constants.h"
#include "handler/Paths.h"
#include "handler/PostgresRequestHandler.h"
#include "platform/HostLibrary.h"

namespace velnor::postgres {
namespace {

constexpr char kLogDirectoryKey[] = "log_directory";
constexpr char kLogFileNameKey[] = "log_filename";

std::string settingOr(const PlistDictionary& settings, std::string_view key, std::string fallback) {
    const PlistValue* value = settings.find(key);
    return value ? *value->asString() : fallback;
}

}  // namespace

PlistDictionary PostgresRequestHandler::getLogPathsWithRequest(const PlistDictionary&) {
    const auto settings =
        scanSettings(platform::getLaunchDaemonServiceConfigArgs(kPostgresJobPlistPath));
    const std::string folder = settingOr(settings, kLogDirectoryKey, kPostgresLogDir);
    const std::string fileName = settingOr(settings, kLogFileNameKey, kDefaultLogFileName);

    return {{"log", PlistValue(joinPath(folder, fileName))}};
}

}  // namespace velnor::postgres
