// The lock that keeps two hosts from running plug-in operations at the same time: the plug-in
// relies on being called one operation at a time, and nothing else guards the job file, the
// folders or the service.
#pragma once

#include <optional>
#include <string>

namespace velnor::host {

inline constexpr const char* kDefaultHostLockPath = "/var/run/velnor/host.lock";

// The lock file: the environment's VELNOR_LOCK_FILE value when set and not empty, else
// kDefaultHostLockPath.
std::string hostLockPath(const char* environment);

// An exclusive flock held for as long as the value lives.
class HostLock {
  public:
    // Creates the lock file's folder (mode 0755, its parent must exist) and the file (mode
    // 0644) when they are missing, then waits for as long as it takes to hold the lock.
    // Nothing when the folder or file cannot be created or opened or the lock cannot be
    // taken; error then names the path and the system's reason. The descriptor is closed on
    // exec, so a process that the plug-in starts never holds the lock.
    static std::optional<HostLock> acquire(const std::string& path, std::string* error);

    HostLock(HostLock&& other) noexcept : descriptor_(other.descriptor_) { other.descriptor_ = -1; }
    HostLock& operator=(HostLock&&) = delete;
    HostLock(const HostLock&) = delete;
    HostLock& operator=(const HostLock&) = delete;
    // Releases the lock.
    ~HostLock();

  private:
    explicit HostLock(int descriptor) : descriptor_(descriptor) {}

    int descriptor_;
};

}  // namespace velnor::host
