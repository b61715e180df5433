// The lock that keeps two hosts from running plug-in operations at the same time: the plug-in
// relies on being called one operation at a time, and nothing else guards the job file, the
// folders or the service.
//
// Only root may hold it: the file is root's and 0600, and its folder root's and writable by no
// one else, so no other account can take the lock and stall every call.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "Result.h"
#include "UniqueFd.h"

namespace velnor::host {

inline constexpr const char* kDefaultHostLockPath = "/var/run/velnor/host.lock";

// The lock file: the environment's VELNOR_LOCK_FILE value when set and not empty, else
// kDefaultHostLockPath.
std::string hostLockPath(const char* environment);

// Opens a folder of root's that no one else may write to, creating it root's and 0755 when it is
// missing (its parent must exist). Refuses one that is not root's or that others may write to;
// name says what the folder is for in messages ("host lock folder").
support::Result<support::UniqueFd> openRootOnlyFolder(const std::string& folder,
                                                      std::string_view name);

// How long to wait for a lock that another host holds, and what to do once it takes a while.
struct LockWait {
    // Nothing: for as long as it takes.
    std::optional<std::chrono::seconds> limit;
    // Called once when the wait lasts longer than announceAfter.
    std::chrono::milliseconds announceAfter{1000};
    std::function<void()> announce;
};

// An exclusive flock held for as long as the value lives.
class HostLock {
  public:
    // Creates the lock file's folder (root's, 0755; its parent must exist) and the file (root's,
    // 0600) when they are missing, then waits as wait says to hold the lock. Refuses a folder
    // that is not root's or that others may write to, and a file that is a symbolic link, not a
    // regular file or not root's. A wait that runs out fails with ETIMEDOUT. The descriptor is
    // closed on exec, so a process that the plug-in starts never holds the lock.
    static support::Result<HostLock> acquire(const std::string& path, const LockWait& wait);

  private:
    explicit HostLock(support::UniqueFd descriptor) : descriptor_(std::move(descriptor)) {}

    support::UniqueFd descriptor_;
};

}  // namespace velnor::host
