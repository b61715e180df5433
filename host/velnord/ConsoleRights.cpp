#include "ConsoleRights.h"

namespace velnor::host {

ConsoleRights rightsOf(const Caller& caller) {
    if (caller.isRoot()) {
        return ConsoleRights{true, true, true};
    }
    return ConsoleRights{true, false, false};
}

}  // namespace velnor::host
