// The plug-in's log convention: syslog at a fixed priority per kind of message, every text
// beginning with kLogPrefix. The host process owns the log: ident and facility are its own.
//
// LOG_ERR      a file-system or kernel operation failed
// LOG_WARNING  waits, time-outs, restarts, terminated clients, fallbacks to defaults
// LOG_NOTICE   a change made to the machine
#pragma once

#include <syslog.h>

namespace velnor::postgres {

// Formats the message printf-style and logs it, prefixed with kLogPrefix.
void logMessage(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace velnor::postgres
