#include "HostLog.h"

#include <syslog.h>

namespace velnor {
namespace {

LogSink& installedSink() {
    static LogSink sink;
    return sink;
}

}  // namespace

void setLogSink(LogSink sink) {
    installedSink() = std::move(sink);
}

void logMessage(int priority, const std::string& message) {
    if (const LogSink& sink = installedSink()) {
        sink(priority, message);
        return;
    }
    // The library never opens the log: ident and facility stay the host process's.
    ::syslog(priority, "%s", message.c_str());
}

void logHostFailure(const std::string& message) {
    logMessage(LOG_ERR, kHostLogPrefix + message);
}

}  // namespace velnor
