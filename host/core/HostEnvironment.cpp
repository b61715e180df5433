#include "HostEnvironment.h"

#include <cstdlib>

#include "ServiceFacts.h"

namespace velnor::host {
namespace {

// Seconds the probe waits for the server to answer: a socket that takes connections and never
// answers would otherwise hold the call, and the host lock, for ever.
constexpr const char* kDefaultPostgresConnectTimeout = "5";

}  // namespace

void setDefaultPostgresEnvironment() {
    // The Linux client library has another default socket folder than the platform's, so the
    // host makes the platform's explicit for the plug-in's probe.
    setenv("PGHOST", kServerSocketFolder, /*overwrite=*/0);
    setenv("PGCONNECT_TIMEOUT", kDefaultPostgresConnectTimeout, /*overwrite=*/0);
}

}  // namespace velnor::host
