// The folder of the server's Unix-domain socket.
#include "handler/Constants.h"
#include "handler/PostgresRequestHandler.h"
#include "housekeeping/ServiceFolders.h"

namespace velnor::postgres {

void PostgresRequestHandler::createSocketDir() {
    createMissingFolder(kPostgresSocketDir, socketFolderAttributes(), "socket");
}

}  // namespace velnor::postgres
