// How the host support library and the plug-ins it serves log: through one sink that the host
// process chooses. By default a message goes to the system log as the host process has opened
// it; a host that relays each call's messages elsewhere (the daemon, to the client that asked)
// installs a sink of its own.
//
// The library's own failures are logged at LOG_ERR, each message beginning "velnor: ".
#pragma once

#include <functional>
#include <string>

#include "Export.h"

namespace velnor {

inline constexpr const char* kHostLogPrefix = "velnor: ";

// Receives every message at its syslog priority, the text as it stands.
using LogSink = std::function<void(int priority, const std::string& message)>;

// Makes sink the receiver of every later message; an empty sink restores the system log.
// Set it before any thread logs: it is read without a lock.
VELNOR_EXPORT void setLogSink(LogSink sink);

// Logs one message at priority through the sink.
VELNOR_EXPORT void logMessage(int priority, const std::string& message);

// Logs one failure; message is a line of text without the prefix.
VELNOR_EXPORT void logHostFailure(const std::string& message);

}  // namespace velnor
