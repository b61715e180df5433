// What every host, velnor or velnord, sets up in its own process before it loads the plug-in.
#pragma once

namespace velnor::host {

// Gives the plug-in's liveness probe the service's socket folder and a bounded connect wait,
// unless the environment already names its own.
void setDefaultPostgresEnvironment();

}  // namespace velnor::host
