#include "housekeeping/ServiceFolders.h"

#include "handler/Constants.h"
#include "handler/Log.h"

namespace velnor::postgres {

platform::FileAttributes socketFolderAttributes() {
    return {0750, kPostgresAccount, kPostgresAccount};
}

platform::FileAttributes logFolderAttributes() {
    return {0755, kPostgresAccount, kPostgresAccount};
}

platform::FileAttributes migrationMarkerAttributes() {
    return {0600, kPostgresAccount, kPostgresAccount};
}

bool createMissingFolder(const char* path, const platform::FileAttributes& attributes,
                         const char* role) {
    // Anything there counts, a plain file included: the housekeeping never replaces it.
    if (platform::fileExists(path)) {
        return false;
    }
    const auto status = platform::createDirectory(path, attributes);
    if (status) {
        logMessage(LOG_NOTICE, "Created %s folder %s", role, path);
    } else {
        logMessage(LOG_ERR, "Error trying to create %s folder %s: %s", role, path,
                   status.message().c_str());
    }
    return true;
}

}  // namespace velnor::postgres
