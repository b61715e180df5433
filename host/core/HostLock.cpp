#include "HostLock.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace velnor::host {
namespace {

using support::couldNot;
using support::Result;
using support::Status;
using support::UniqueFd;

constexpr mode_t kLockFileMode = 0600;
// How often a blocked flock is woken to look at the clock while it waits.
constexpr suseconds_t kWakeUpMicroseconds = 100000;

// Why a lock file is not root's alone; empty when it is. A second name could be a file that
// root's chmod must not touch.
std::string untrustedFileBecause(const struct stat& status) {
    if (!S_ISREG(status.st_mode)) {
        return "it is not a regular file";
    }
    if (status.st_uid != 0) {
        return "it belongs to uid " + std::to_string(status.st_uid) + ", not root";
    }
    return status.st_nlink != 1 ? "it has other names (hard links)" : "";
}

// Opens the lock file in its folder, creating it when missing, never through a link. A file
// that an older host left readable by all gets its mode: read access is all flock needs.
Result<UniqueFd> openLockFile(int folder, const std::string& path, const std::string& lockName) {
    const std::string name = std::filesystem::path(path).filename().string();
    UniqueFd descriptor(openat(folder, name.c_str(),
                               O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                               kLockFileMode));
    if (!descriptor.valid()) {
        return errno == ELOOP
                   ? couldNot("open the " + lockName, path, "it is a symbolic link", ELOOP)
                   : couldNot("open the " + lockName, path, errno);
    }
    struct stat status;
    if (fstat(descriptor.get(), &status) != 0) {
        return couldNot("open the " + lockName, path, errno);
    }
    if (std::string reason = untrustedFileBecause(status); !reason.empty()) {
        return couldNot("open the " + lockName, path, reason, EPERM);
    }
    if ((status.st_mode & 07777) != kLockFileMode && fchmod(descriptor.get(), kLockFileMode) != 0) {
        return couldNot("set the mode of the " + lockName, path, errno);
    }
    return descriptor;
}

void wakeUp(int) {}

// Wakes a blocked flock every kWakeUpMicroseconds with SIGALRM, for as long as it lives; a
// repeating timer, so that a tick that comes just before the flock blocks is followed by
// another. Leaves the signal's action and mask as it found them.
class WakeUpTimer {
  public:
    WakeUpTimer() {
        struct sigaction action = {};
        action.sa_handler = wakeUp;  // without SA_RESTART, so that flock returns EINTR
        sigemptyset(&action.sa_mask);
        sigaction(SIGALRM, &action, &previousAction_);
        sigset_t alarm;
        sigemptyset(&alarm);
        sigaddset(&alarm, SIGALRM);
        sigprocmask(SIG_UNBLOCK, &alarm, &previousMask_);
        const itimerval ticks = {{0, kWakeUpMicroseconds}, {0, kWakeUpMicroseconds}};
        setitimer(ITIMER_REAL, &ticks, nullptr);
    }
    ~WakeUpTimer() {
        const itimerval stopped = {};
        setitimer(ITIMER_REAL, &stopped, nullptr);
        sigprocmask(SIG_SETMASK, &previousMask_, nullptr);
        sigaction(SIGALRM, &previousAction_, nullptr);
    }
    WakeUpTimer(const WakeUpTimer&) = delete;
    WakeUpTimer& operator=(const WakeUpTimer&) = delete;

  private:
    struct sigaction previousAction_ = {};
    sigset_t previousMask_ = {};
};

// The pid in the kernel's lock table line that records a flock granted on the file dev:inode,
// or nothing. Lines of waiters ("->") are not holders.
std::optional<pid_t> flockHolderIn(const std::string& line, const std::string& file) {
    std::istringstream fields(line);
    std::string number, kind, mode, access, pid, device;
    fields >> number >> kind >> mode >> access >> pid >> device;
    if (kind != "FLOCK" || device != file) {
        return std::nullopt;
    }
    return static_cast<pid_t>(std::strtol(pid.c_str(), nullptr, 10));
}

// The file as the kernel's lock table names it: major:minor:inode, the device numbers in hex.
std::string lockTableName(const struct stat& status) {
    char name[64];
    std::snprintf(name, sizeof name, "%02x:%02x:%llu", major(status.st_dev), minor(status.st_dev),
                  static_cast<unsigned long long>(status.st_ino));
    return name;
}

std::string commandNameOf(pid_t pid) {
    std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(comm, name);
    return name.empty() ? "a process" : name;
}

Status takeLock(int descriptor, const HostLock& lock, const LockWait& wait) {
    if (flock(descriptor, LOCK_EX | LOCK_NB) == 0) {
        return {};
    }
    if (errno != EWOULDBLOCK && errno != EINTR) {
        return couldNot("take the " + lock.name(), lock.path(), errno);
    }
    const auto began = std::chrono::steady_clock::now();
    bool announced = false;
    WakeUpTimer timer;
    for (;;) {
        const auto waited = std::chrono::steady_clock::now() - began;
        if (!announced && waited >= wait.announceAfter) {
            announced = true;
            if (wait.announce) {
                wait.announce(lock.holder());
            }
        }
        if (wait.limit && waited >= *wait.limit) {
            return couldNot(
                "take the " + lock.name(), lock.path(),
                lock.holder() + " held it for " + std::to_string(wait.limit->count()) + " s",
                ETIMEDOUT);
        }
        if (flock(descriptor, LOCK_EX) == 0) {
            return {};
        }
        if (errno != EINTR) {
            return couldNot("take the " + lock.name(), lock.path(), errno);
        }
    }
}

}  // namespace

std::string hostLockPath(const char* environment) {
    return environment != nullptr && *environment != '\0' ? environment : kDefaultHostLockPath;
}

Result<HostLock> HostLock::open(const std::string& path, std::string_view name) {
    const std::string lockName(name);
    std::string folderPath = std::filesystem::path(path).parent_path().string();
    Result<UniqueFd> folder =
        support::openRootOnlyFolder(folderPath.empty() ? "." : folderPath, lockName + " folder");
    if (!folder) {
        return folder.failure();
    }
    Result<UniqueFd> file = openLockFile(folder->get(), path, lockName);
    if (!file) {
        return file.failure();
    }
    return HostLock(std::move(*file), path, name);
}

Result<HostLock::Held> HostLock::hold(const LockWait& wait) const {
    if (Status locked = takeLock(descriptor_.get(), *this, wait); !locked) {
        return locked.failure();
    }
    return Held(descriptor_.get());
}

std::optional<HostLock::Held> HostLock::holdIfFree() const {
    if (flock(descriptor_.get(), LOCK_EX | LOCK_NB) != 0) {
        return std::nullopt;
    }
    return Held(descriptor_.get());
}

Result<HostLock::Held> HostLock::holdOnceFree() const {
    while (flock(descriptor_.get(), LOCK_EX) != 0) {
        if (errno != EINTR) {
            return couldNot("take the " + name_, path_, errno);
        }
    }
    return Held(descriptor_.get());
}

std::string HostLock::holder() const {
    struct stat status;
    if (fstat(descriptor_.get(), &status) != 0) {
        return "another process";
    }
    const std::string file = lockTableName(status);
    std::ifstream table("/proc/locks");
    for (std::string line; std::getline(table, line);) {
        if (std::optional<pid_t> pid = flockHolderIn(line, file); pid && *pid != getpid()) {
            return commandNameOf(*pid) + " (pid " + std::to_string(*pid) + ")";
        }
    }
    return "another process";
}

void HostLock::Held::release() {
    if (descriptor_ >= 0) {
        flock(descriptor_, LOCK_UN);
        descriptor_ = -1;
    }
}

}  // namespace velnor::host
