#include "WholeFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "DescriptorIo.h"
#include "PathNames.h"
#include "SafePath.h"
#include "TemporaryFiles.h"
#include "UniqueFd.h"

namespace velnor {
namespace {

// Gives the temporary file the owner and mode of the file it replaces. The owner comes first:
// changing it clears the set-user-id and set-group-id bits, which the mode then restores.
bool takeOverAttributes(const support::ReplacementFile& file, const struct stat* old,
                        mode_t newFileMode) {
    if (old != nullptr && (old->st_uid != ::geteuid() || old->st_gid != ::getegid()) &&
        ::fchown(file.fd(), old->st_uid, old->st_gid) != 0) {
        return false;
    }
    mode_t mode = old != nullptr ? (old->st_mode & 07777) : newFileMode;
    return ::fchmod(file.fd(), mode) == 0;
}

// The whole of the regular file open at fd.
support::Result<std::string> readWholeOpenFile(const support::UniqueFd& fd,
                                               const std::string& path) {
    struct stat status {};
    if (::fstat(fd.get(), &status) != 0) {
        return support::couldNot("examine", path, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return support::couldNot("read", path, S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    }
    std::string contents;
    if (!support::readAll(fd.get(), contents)) {
        return support::couldNot("read", path, errno);
    }
    return contents;
}

}  // namespace

support::Result<std::string> readWholeFile(const std::string& path) {
    support::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        return support::couldNot("open", path, errno);
    }
    return readWholeOpenFile(fd, path);
}

support::Result<std::string> readWholeFileSafely(const std::string& path) {
    auto found = support::openSafely(path);
    if (!found) {
        return found.failure();
    }
    // A path descriptor of a folder or device would open as one; only a regular file is read.
    struct stat status {};
    if (::fstat(found->get(), &status) != 0) {
        return support::couldNot("examine", path, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return support::couldNot("read", path, S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    }
    auto fd = support::reopen(found->get(), O_RDONLY, path);
    if (!fd) {
        return fd.failure();
    }
    return readWholeOpenFile(*fd, path);
}

support::Status replaceWholeFileAtomically(const std::string& path, std::string_view contents,
                                           mode_t newFileMode) {
    auto placement = support::placeSafely(path);
    if (!placement) {
        return placement.failure();
    }
    const std::string& target = placement->shownPath;
    struct stat old {};
    const bool replacing =
        ::fstatat(placement->folder.get(), placement->name.c_str(), &old, AT_SYMLINK_NOFOLLOW) == 0;
    if (!replacing && errno != ENOENT) {
        return support::couldNot("examine", target, errno);
    }
    if (replacing && !S_ISREG(old.st_mode)) {
        return support::couldNot("replace", target, S_ISDIR(old.st_mode) ? EISDIR : EINVAL);
    }

    support::ReplacementFile temporary(placement->folder.get(), placement->name,
                                       support::folderOf(target));
    if (!temporary.created()) {
        return support::couldNot("create a temporary file beside", target,
                                 temporary.created().message(), temporary.created().error());
    }
    if (!support::writeAll(temporary.fd(), contents)) {
        return support::couldNot("write a temporary file beside", target, errno);
    }
    if (!takeOverAttributes(temporary, replacing ? &old : nullptr, newFileMode)) {
        return support::couldNot("set the owner and mode of a temporary file beside", target,
                                 errno);
    }
    if (::fsync(temporary.fd()) != 0 || temporary.file().close() != 0) {
        return support::couldNot("flush a temporary file beside", target, errno);
    }
    if (!temporary.renameIntoPlace()) {
        return support::couldNot("rename a temporary file over", target, errno);
    }
    return {};
}

}  // namespace velnor
