#include "handler/Housekeeping.h"

#include "handler/PostgresRequestHandler.h"

namespace velnor::postgres {

void runHousekeeping(PostgresRequestHandler& handler) {
    handler.createSocketDir();
    handler.createLogDir();
}

std::intptr_t PostgresRequestHandler::doIdleAtCount(std::int32_t) {
    runHousekeeping(*this);
    return 0;
}

}  // namespace velnor::postgres
