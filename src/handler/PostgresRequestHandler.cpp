#include "handler/PostgresRequestHandler.h"

namespace velnor::postgres {

// Everything the handler knows it reads afresh on each call; it adds nothing to its base.
static_assert(sizeof(PostgresRequestHandler) == sizeof(PluginRequestHandler),
              "the handler keeps no state of its own");

void PostgresRequestHandler::initialize() {}

}  // namespace velnor::postgres
