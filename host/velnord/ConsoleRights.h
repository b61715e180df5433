// What an account logged in to the console may do there, in the three kinds of action that the
// control socket names too: read the service's state, operate it (start, stop, restart), and
// configure it (write its settings, set it up).
#pragma once

#include "Caller.h"

namespace velnor::host {

struct ConsoleRights {
    bool read = false;
    bool operate = false;
    bool configure = false;
};

// What caller may do: root everything, every other account only read.
ConsoleRights rightsOf(const Caller& caller);

}  // namespace velnor::host
