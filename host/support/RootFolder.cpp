#include "RootFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "DescriptorIo.h"
#include "SafePath.h"

namespace velnor::support {

std::string untrustedFolderBecause(const struct stat& status) {
    if (status.st_uid != 0) {
        return "it belongs to uid " + std::to_string(status.st_uid) + ", not root";
    }
    return (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 ? "others may write to it" : "";
}

Result<UniqueFd> openRootOnlyFolder(const std::string& folder, std::string_view name, mode_t mode) {
    const bool created = mkdir(folder.c_str(), mode) == 0;
    if (!created && errno != EEXIST) {
        return couldNot("create the " + std::string(name), folder, errno);
    }
    // A link in the folder's place would have root's files made wherever it points.
    UniqueFd descriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat link;
    if (!descriptor.valid() && (errno == ELOOP || errno == ENOTDIR) &&
        lstat(folder.c_str(), &link) == 0 && S_ISLNK(link.st_mode)) {
        return couldNot("open the " + std::string(name), folder, "it is a symbolic link", ELOOP);
    }
    struct stat status;
    if (!descriptor.valid() || fstat(descriptor.get(), &status) != 0) {
        return couldNot("open the " + std::string(name), folder, errno);
    }
    if (std::string reason = untrustedFolderBecause(status); !reason.empty()) {
        return couldNot("open the " + std::string(name), folder, reason, EPERM);
    }
    if (created && fchmod(descriptor.get(), mode) != 0) {
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
