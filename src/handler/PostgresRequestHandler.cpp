#include "handler/PostgresRequestHandler.h"

namespace velnor::postgres {

void PostgresRequestHandler::initialize() {}

void PostgresRequestHandler::runHousekeeping() {
    createSocketDir();
    createLogDir();
}

}  // namespace velnor::postgres
