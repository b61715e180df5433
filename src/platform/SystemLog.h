// The system log, as the host process has opened it, through the host library's log sink.
#pragma once

#include <string>

namespace velnor::platform {

/** @see syslog(3): writes message as it stands at priority; the plug-in never opens the log. */
void syslog(int priority, const std::string& message);

}  // namespace velnor::platform
