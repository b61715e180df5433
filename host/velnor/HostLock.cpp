#include "HostLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace velnor::host {
namespace {

constexpr mode_t kLockFolderMode = 0755;
constexpr mode_t kLockFileMode = 0644;

std::string failure(const char* what, const std::string& path, int error) {
    return std::string("cannot ") + what + " " + path + ": " + std::strerror(error);
}

// Creates the folder when missing; the mode is set explicitly because the umask may have
// narrowed it.
bool ensureFolder(const std::string& folder, std::string* error) {
    if (mkdir(folder.c_str(), kLockFolderMode) == 0) {
        chmod(folder.c_str(), kLockFolderMode);
        return true;
    }
    if (errno == EEXIST) {
        return true;
    }
    *error = failure("create the lock folder", folder, errno);
    return false;
}

// Opens the lock file, creating it when missing; -1 with errno set on failure.
int openLockFile(const std::string& path) {
    int descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kLockFileMode);
    if (descriptor >= 0) {
        fchmod(descriptor, kLockFileMode);
        return descriptor;
    }
    if (errno != EEXIST) {
        return -1;
    }
    // Read access is all flock needs, and all a lock file made by someone else may grant.
    return open(path.c_str(), O_RDONLY | O_CLOEXEC);
}

}  // namespace

std::string hostLockPath(const char* environment) {
    return environment != nullptr && *environment != '\0' ? environment : kDefaultHostLockPath;
}

std::optional<HostLock> HostLock::acquire(const std::string& path, std::string* error) {
    std::string folder = std::filesystem::path(path).parent_path().string();
    if (!folder.empty() && !ensureFolder(folder, error)) {
        return std::nullopt;
    }
    int descriptor = openLockFile(path);
    if (descriptor < 0) {
        *error = failure("open the lock file", path, errno);
        return std::nullopt;
    }
    int result = 0;
    do {
        result = flock(descriptor, LOCK_EX);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        *error = failure("lock", path, errno);
        close(descriptor);
        return std::nullopt;
    }
    return HostLock(descriptor);
}

HostLock::~HostLock() {
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
}

}  // namespace velnor::host
