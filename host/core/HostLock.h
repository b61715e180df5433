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
#include <utility>

#include "Result.h"
#include "RootFolder.h"
#include "UniqueFd.h"

namespace velnor::host {

inline constexpr const char* kDefaultHostLockPath = "/var/run/velnor/host.lock";

// The lock file: the environment's VELNOR_LOCK_FILE value when set and not empty, else
// kDefaultHostLockPath.
std::string hostLockPath(const char* environment);

// How long to wait for a lock that another host holds, and what to do once it takes a while.
struct LockWait {
    // Nothing: for as long as it takes.
    std::optional<std::chrono::seconds> limit;
    // Called once when the wait lasts longer than announceAfter, with who holds the lock
    // (HostLock::holder).
    std::chrono::milliseconds announceAfter{1000};
    std::function<void(const std::string& holder)> announce;
};

// The host lock file, open: whoever enters the plug-in holds the lock around each call, the
// in-process host for its whole run and velnord around each plug-in call, so that a run of one
// takes its turn between two calls of the other.
class HostLock {
  public:
    // An exclusive flock on the file, held for as long as the value lives.
    class Held {
      public:
        explicit Held(int descriptor) : descriptor_(descriptor) {}
        ~Held() { release(); }
        Held(Held&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
        Held& operator=(Held&& other) noexcept {
            if (this != &other) {
                release();
                descriptor_ = std::exchange(other.descriptor_, -1);
            }
            return *this;
        }
        Held(const Held&) = delete;
        Held& operator=(const Held&) = delete;

      private:
        void release();

        int descriptor_;  // the lock file's, which the HostLock owns
    };

    // Creates the lock file's folder (root's, 0755; its parent must exist) and the file (root's,
    // 0600) when they are missing, and opens the file. Refuses a folder that is not root's or
    // that others may write to, and a file that is a symbolic link, not a regular file or not
    // root's. The descriptor is closed on exec, so a process that the plug-in starts never holds
    // the lock.
    // name says what the lock is for in messages.
    static support::Result<HostLock> open(const std::string& path,
                                          std::string_view name = "host lock");

    // Waits as wait says, then holds the lock. A wait that runs out fails with ETIMEDOUT. Uses
    // SIGALRM to look at the clock while it waits: for single-threaded programs only.
    support::Result<Held> hold(const LockWait& wait) const;

    // Holds the lock when no one else does; nothing when another process holds it.
    std::optional<Held> holdIfFree() const;

    // Holds the lock, waiting for as long as another process holds it: for a holder whose every
    // call ends within bounded waits.
    support::Result<Held> holdOnceFree() const;

    // Who holds the lock now, for messages: "velnord (pid 812)", or "another process" when the
    // kernel's lock table does not say.
    std::string holder() const;

    const std::string& path() const { return path_; }
    const std::string& name() const { return name_; }

  private:
    HostLock(support::UniqueFd descriptor, std::string path, std::string_view name)
        : descriptor_(std::move(descriptor)), path_(std::move(path)), name_(name) {}

    support::UniqueFd descriptor_;
    std::string path_;
    std::string name_;
};

}  // namespace velnor::host
