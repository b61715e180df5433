#include "HostLog.h"

#include <syslog.h>

namespace velnor {

void logHostFailure(const std::string& message) {
    // The library never opens the log: ident and facility stay the host process's.
    ::syslog(LOG_ERR, "%s%s", kHostLogPrefix, message.c_str());
}

}  // namespace velnor
