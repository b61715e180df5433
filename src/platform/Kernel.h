// What the plug-in needs of the kernel: sysctl for process arguments, signals and sleeping.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "Result.h"
#include "UniqueFd.h"

namespace velnor::platform {

// sysctl names, with the values that the BSD kernel gives them.
inline constexpr int kCtlKern = 1;
inline constexpr int kKernArgmax = 8;
inline constexpr int kKernProcargs2 = 49;

/** @see sysctl(3): -1 with errno on failure. Supports {kCtlKern, kKernArgmax} and
 * {kCtlKern, kKernProcargs2, pid}; anything else fails with ENOTSUP. A null oldp asks for the
 * size alone. Process arguments fail with ESRCH for a process that has ended (also one not yet
 * reaped) and for a kernel thread, EPERM for one that may not be read, ENOMEM when they do not
 * fit in *oldlenp; nothing can be set (newp fails with EPERM). */
int sysctl(const int* name, unsigned int namelen, void* oldp, std::size_t* oldlenp,
           const void* newp, std::size_t newlen);
// A process held by a descriptor of its own (a pidfd): a signal sent through it reaches that
// process or none, never another that took its pid once it ended.
struct ProcessHandle {
    pid_t pid = 0;
    support::UniqueFd descriptor;
};

/** @see pidfd_open(2): fails with ESRCH for a process that has ended. */
support::Result<ProcessHandle> openProcess(pid_t pid);
/** The effective user id of the process with this pid now, from /proc/PID/status. */
support::Result<uid_t> processOwner(pid_t pid);
/** @see pidfd_send_signal(2): fails with ESRCH once the process has ended. */
support::Status signalProcess(const ProcessHandle& process, int signal);
/** @see usleep(3) */
int usleep(useconds_t microseconds);

}  // namespace velnor::platform
