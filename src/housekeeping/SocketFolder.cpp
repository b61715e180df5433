// The folder of the server's Unix-domain socket.
#include "handler/Constants.h"
#include "handler/Log.h"
#include "handler/PostgresRequestHandler.h"
#include "housekeeping/ServiceFolders.h"

namespace velnor::postgres {

void PostgresRequestHandler::createSocketDir() {
    // Anything there counts, a plain file included: the housekeeping never replaces it.
    if (platform::fileExists(kPostgresSocketDir)) {
        return;
    }
    const auto status = platform::createDirectory(kPostgresSocketDir, socketFolderAttributes());
    if (status.succeeded) {
        logMessage(LOG_NOTICE, "Created socket folder %s", kPostgresSocketDir);
    } else {
        logMessage(LOG_ERR, "Error trying to create socket folder %s: %s", kPostgresSocketDir,
                   status.error.c_str());
    }
}

}  // namespace velnor::postgres
