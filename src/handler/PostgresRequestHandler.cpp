#include "handler/PostgresRequestHandler.h"

namespace velnor::postgres {

void PostgresRequestHandler::initialize() {}

}  // namespace velnor::postgres
