#include "HostEnvironment.h"

#include <cstdlib>

namespace velnor::host {
namespace {

// Where the platform's libpq looks for the server's socket when nothing says otherwise; the
// Linux libpq has another default, so the host makes it explicit for the plug-in's probe.
constexpr const char* kDefaultPostgresSocketFolder = "/var/pgsql_socket";
// Seconds the probe waits for the server to answer: a socket that takes connections and never
// answers would otherwise hold the call, and the host lock, for ever.
constexpr const char* kDefaultPostgresConnectTimeout = "5";

}  // namespace

void setDefaultPostgresEnvironment() {
    setenv("PGHOST", kDefaultPostgresSocketFolder, /*overwrite=*/0);
    setenv("PGCONNECT_TIMEOUT", kDefaultPostgresConnectTimeout, /*overwrite=*/0);
}

}  // namespace velnor::host
