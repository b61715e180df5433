#include "platform/Kernel.h"

#include <signal.h>
#include <unistd.h>

namespace velnor::platform {

int kill(pid_t pid, int signal) {
    return ::kill(pid, signal);
}

int usleep(useconds_t microseconds) {
    return ::usleep(microseconds);
}

}  // namespace velnor::platform
