#include "PeerProcess.h"

#include <poll.h>
// This glibc's header forgets C linkage.
extern "C" {
#include <sys/pidfd.h>
}

#include <cerrno>
#include <optional>
#include <string>
#include <utility>

#include "Accounts.h"
#include "ControlProtocol.h"
#include "ProcessStat.h"

// The kernel's pidfd of a Unix socket's peer (Linux 6.5); the C library's headers may not name it.
#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace velnor::host {
namespace {

using support::couldNot;
using support::UniqueFd;

// The pidfd that the kernel recorded for the peer at connect(); on a kernel without the option,
// one opened from its pid now, which holds the right process unless it had ended already.
UniqueFd peerPidfd(int socket, pid_t pid) {
    int descriptor = -1;
    socklen_t size = sizeof descriptor;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERPIDFD, &descriptor, &size) == 0 && descriptor >= 0) {
        return UniqueFd(descriptor);
    }
    return UniqueFd(pidfd_open(pid, 0));
}

// True while the process that pidfd holds has not ended.
bool processStillRuns(int pidfd) {
    // A pidfd turns readable once its process has ended, a zombie included.
    pollfd watched{pidfd, POLLIN, 0};
    int ready;
    do {
        ready = poll(&watched, 1, 0);
    } while (ready < 0 && errno == EINTR);
    return ready == 0;
}

}  // namespace

bool peerStillRuns(const PeerProcess& peer) {
    return peer.pidfd.valid() && processStillRuns(peer.pidfd.get());
}

support::Result<PeerProcess> peerProcessOf(int socket) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        return couldNot("read the peer credentials of", kControlSocketPath, errno);
    }
    PeerProcess peer;
    peer.caller = Caller{credentials.uid,
                         support::accountNameOf(credentials.uid),
                         credentials.pid,
                         Channel::ControlSocket,
                         {}};
    // Root asks no one, so its process need not be held.
    if (credentials.uid == 0) {
        return peer;
    }
    UniqueFd pidfd = peerPidfd(socket, credentials.pid);
    const std::optional<ProcessStat> stat = readProcessStat("/proc", credentials.pid);
    // Read, then checked through the pidfd: a process that still runs after the read is the one
    // whose stat was read, since its pid could not have been given to another meanwhile.
    if (pidfd.valid() && stat && stat->running() && processStillRuns(pidfd.get())) {
        peer.pidfd = std::move(pidfd);
        peer.startTime = stat->startTime;
    }
    return peer;
}

}  // namespace velnor::host
