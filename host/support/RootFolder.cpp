#include "RootFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "DescriptorIo.h"
#include "SafePath.h"

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

Result<std::string> readRootsFile(const std::string& path, bool othersMayRead) {
    std::string untrusted;
    Result<UniqueFd> opened = openSafely(path, &untrusted);
    if (!opened) {
        return opened.failure();
    }
    struct stat status;
    if (!untrusted.empty() || fstat(opened->get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_uid != 0 || (status.st_mode & (othersMayRead ? 022 : 077)) != 0) {
        return couldNot("trust", path,
                        untrusted.empty() ? "it is not a file of root's alone" : untrusted, EPERM);
    }
    Result<UniqueFd> file = reopen(opened->get(), O_RDONLY | O_CLOEXEC, path);
    if (!file) {
        return file.failure();
    }
    std::string contents;
    if (!readAll(file->get(), contents)) {
        return couldNot("read", path, errno);
    }
    return contents;
}

}  // namespace velnor::support
