#include "platform/SystemLog.h"

#include <syslog.h>

namespace velnor::platform {

void syslog(int priority, const std::string& message) {
    ::syslog(priority, "%s", message.c_str());
}

}  // namespace velnor::platform
