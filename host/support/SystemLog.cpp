#include "SystemLog.h"

#include <syslog.h>

#include <atomic>

namespace velnor::support {
namespace {

std::atomic<const char*> openedIdent = nullptr;
std::atomic<int> openedOptions = 0;
std::atomic<int> openedFacility = LOG_USER;

}  // namespace

void openSystemLog(const char* ident, int options, int facility) {
    openedIdent = ident;
    openedOptions = options;
    openedFacility = facility;
    openlog(ident, options, facility);
}

void logOnly(int priority, const std::string& text) {
    const int options = openedOptions;
    if ((options & LOG_PERROR) == 0) {
        ::syslog(priority, "%s", text.c_str());
        return;
    }
    // Another thread's line logged meanwhile may miss its echo; none is lost from the log.
    openlog(openedIdent, options & ~LOG_PERROR, openedFacility);
    ::syslog(priority, "%s", text.c_str());
    openlog(openedIdent, options, openedFacility);
}

}  // namespace velnor::support
