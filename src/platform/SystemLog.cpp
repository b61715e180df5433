#include "platform/SystemLog.h"

#include "HostLog.h"

namespace velnor::platform {

void syslog(int priority, const std::string& message) {
    logMessage(priority, message);
}

}  // namespace velnor::platform
