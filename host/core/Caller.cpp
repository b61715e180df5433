#include "Caller.h"

#include <unistd.h>

#include "Accounts.h"

namespace velnor::host {

std::string_view channelName(Channel channel) {
    switch (channel) {
        case Channel::ControlSocket:
            return "control socket";
        case Channel::Console:
            return "console";
        case Channel::InProcess:
            break;
    }
    return "in-process host";
}

Caller callerOfThisProcess() {
    return Caller{getuid(), support::accountNameOf(getuid()), getpid(), Channel::InProcess, {}};
}

}  // namespace velnor::host
