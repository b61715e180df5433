#include "RootFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace velnor::support {
namespace {

constexpr mode_t kRootFolderMode = 0755;

// Why a folder is not fit to hold root's lock: whoever may write to it can replace the lock
// file. Empty when it is fit.
std::string untrustedFolderBecause(const struct stat& status) {
    if (status.st_uid != 0) {
        return "it belongs to uid " + std::to_string(status.st_uid) + ", not root";
    }
    return (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 ? "others may write to it" : "";
}

}  // namespace

Result<UniqueFd> openRootOnlyFolder(const std::string& folder, std::string_view name) {
    const bool created = mkdir(folder.c_str(), kRootFolderMode) == 0;
    if (!created && errno != EEXIST) {
        return couldNot("create the " + std::string(name), folder, errno);
    }
    UniqueFd descriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status;
    if (!descriptor.valid() || fstat(descriptor.get(), &status) != 0) {
        return couldNot("open the " + std::string(name), folder, errno);
    }
    if (std::string reason = untrustedFolderBecause(status); !reason.empty()) {
        return couldNot("open the " + std::string(name), folder, reason, EPERM);
    }
    if (created && fchmod(descriptor.get(), kRootFolderMode) != 0) {
        return couldNot("set the mode of the " + std::string(name), folder, errno);
    }
    return descriptor;
}

}  // namespace velnor::support
