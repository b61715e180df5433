#include "housekeeping/ServiceFolders.h"

#include "handler/Constants.h"

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

}  // namespace velnor::postgres
