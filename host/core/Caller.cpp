#include "Caller.h"

#include <pwd.h>
#include <unistd.h>

#include <vector>

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

std::string accountNameOf(uid_t uid) {
    long suggested = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(suggested > 0 ? static_cast<std::size_t>(suggested) : 4096);
    struct passwd entry;
    struct passwd* found = nullptr;
    // A name service that fails answers like one that has no entry: the number stands in.
    if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
        return found->pw_name;
    }
    return std::to_string(uid);
}

Caller callerOfThisProcess() {
    return Caller{getuid(), accountNameOf(getuid()), getpid(), Channel::InProcess, {}};
}

}  // namespace velnor::host
