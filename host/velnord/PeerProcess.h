// The process at the other end of a control-socket connection, as it was when it connected: who
// it ran as, and a hold on it that a later process with the same pid cannot borrow. polkit is
// asked about that process by pid and start time; the pidfd says, when the answer comes, whether
// the pid still names it.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstdint>

#include "Caller.h"
#include "Result.h"
#include "UniqueFd.h"

namespace velnor::host {

struct PeerProcess {
    // The uid, account and pid that the kernel recorded at connect(), on the control-socket
    // channel.
    Caller caller;
    // Holds that very process: while it runs, its pid names no other. Invalid when the process
    // had ended by the time the daemon looked, and for root, who is asked nothing.
    support::UniqueFd pidfd;
    // Clock ticks from boot to the process's start, as /proc/PID/stat gives them.
    std::uint64_t startTime = 0;
};

// The peer of a connected Unix socket. The pidfd comes from the kernel's record of the
// connecting process (SO_PEERPIDFD) where the kernel has it, so that a process that ended and
// whose pid was taken by another is never mistaken for it; else from the pid, at once. Fails only
// when the credentials cannot be read.
support::Result<PeerProcess> peerProcessOf(int socket);

// Whether the peer's process still runs: held, and not ended since.
bool peerStillRuns(const PeerProcess& peer);

}  // namespace velnor::host
