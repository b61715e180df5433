// Who asks for a call: the account the kernel vouches for (the peer credentials of a control
// socket connection, the console's logged-in account, or the in-process host's own), and the way
// the request came in. Permissions are decided on it and the trail records it.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace velnor::host {

enum class Channel { ControlSocket, Console, InProcess };

struct Caller {
    uid_t uid = 0;
    // The account's name, or its number in decimal when the account has no name.
    std::string account;
    // The client's process on a control socket connection and in the in-process host; 0 for the
    // console, whose peer is on the network.
    pid_t pid = 0;
    Channel channel = Channel::InProcess;
    // The console's peer, as "ADDRESS:PORT"; empty on the other channels.
    std::string remoteAddress;

    bool isRoot() const { return uid == 0; }
};

// The channel in words: "control socket", "console" or "in-process host".
std::string_view channelName(Channel channel);

// The caller that this process is: its real uid and pid, on the in-process channel.
Caller callerOfThisProcess();

}  // namespace velnor::host
