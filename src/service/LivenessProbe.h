// The liveness probe: does the server accept a connection right now?
#pragma once

#include <cstdint>

namespace velnor::postgres {

// Opens and closes a test connection as the service account to the database "postgres". True
// when it could be made; then, when serverVersion is given, the server's version number (major
// x 10000 + minor x 100 + patch for three-part releases) is stored there. Otherwise
// serverVersion is left as it was. Blocks for as long as the connection attempt takes: the
// connection string sets no time limit.
bool postgresIsResponding(std::int32_t* serverVersion = nullptr);

}  // namespace velnor::postgres
