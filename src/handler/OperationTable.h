// The operations that the host may call, by name.
#pragma once

#include <span>

#include "PluginInterface.h"

namespace velnor::postgres {

// The host-called operations of PostgresRequestHandler, in the order of the class's method list.
std::span<const HostOperation> hostOperations();

}  // namespace velnor::postgres
