// The folder of the server's log files, and the one-time migration of the log-directory setting
// from the old folder "/Library/Logs" to the server's own folder.
//
// The migration runs only in a call that had to create the log folder, so that with the folder
// in place the housekeeping costs a single existence test. A marker in the data folder keeps it
// from running twice.
#include "config/LaunchArgumentCodec.h"
#include "handler/Constants.h"
#include "handler/Log.h"
#include "handler/Paths.h"
#include "handler/PostgresRequestHandler.h"
#include "housekeeping/ServiceFolders.h"
#include "platform/FileSystem.h"
#include "platform/HostLibrary.h"

namespace velnor::postgres {
namespace {

constexpr char kLegacyLogDirectorySetting[] = "log_directory=/Library/Logs";
constexpr char kProgramArgumentsKey[] = "ProgramArguments";

// Replaces the first old log-directory setting in the job file, which is read and written
// whole and directly, in place. Only that one element changes: nothing is re-sorted or dropped,
// and every other key and element is written back as it was read.
void replaceLegacyLogDirectorySetting() {
    auto jobFile = platform::readPropertyListDictionary(kPostgresJobPlistPath);
    const PlistValue* list = jobFile ? jobFile->find(kProgramArgumentsKey) : nullptr;
    if (!list || !list->asArray()) {
        return;
    }
    PlistArray arguments = *list->asArray();
    for (auto& element : arguments) {
        const std::string* text = element.asString();
        if (!text || *text != kLegacyLogDirectorySetting) {
            continue;
        }
        element = PlistValue(kLogDirectorySetting);
        jobFile->set(kProgramArgumentsKey, PlistValue(std::move(arguments)));
        // The message reports the attempt; the write's result is not examined.
        static_cast<void>(platform::writePropertyListDictionary(kPostgresJobPlistPath, *jobFile));
        logMessage(LOG_NOTICE, "Updated log directory in launchd plist file");
        return;
    }
}

}  // namespace

void PostgresRequestHandler::createLogDir() {
    // A log folder that could not be created does not hold the migration back.
    if (!createMissingFolder(kPostgresLogDir, logFolderAttributes(), "log")) {
        return;
    }

    // Throws, uncaught, when the arguments hold no "-D" with a folder after it.
    const auto dataFolder =
        lookUpDataFolder(platform::getLaunchDaemonServiceConfigArgs(kPostgresJobPlistPath));
    const std::string markerPath = formatWithObject(kLogDirMigrationMarkerFormat, dataFolder);
    if (platform::fileExists(markerPath)) {
        return;
    }
    replaceLegacyLogDirectorySetting();
    // Marked whether or not anything was replaced: a job file without the old setting is
    // migrated too. The result is not examined.
    static_cast<void>(platform::createFile(markerPath, "", migrationMarkerAttributes()));
    // The restart picks the new folder up. The skip variant keeps the nested stop and start from
    // entering this housekeeping again; their results are dropped.
    stopServiceWithVariant(PlistValue(kSkipDependenciesVariant));
    startServiceWithVariant(PlistValue(kSkipDependenciesVariant));
}

}  // namespace velnor::postgres
