// How the host support library reports its own failures: to the system log, as the host
// process has opened it, at LOG_ERR, each message beginning "velnor: ".
#pragma once

#include <string>

namespace velnor {

inline constexpr const char* kHostLogPrefix = "velnor: ";

// Logs one failure; message is a line of text without the prefix.
void logHostFailure(const std::string& message);

}  // namespace velnor
