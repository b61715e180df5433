// The folder housekeeping that most operations run before their own work.
#pragma once

namespace velnor::postgres {

class PostgresRequestHandler;

// createSocketDir, then createLogDir: always as a pair and in that order. With both folders in
// place it costs one existence test each and nothing else.
void runHousekeeping(PostgresRequestHandler& handler);

}  // namespace velnor::postgres
