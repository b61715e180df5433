// The file system on Linux: existence tests, folders and files with exact attributes, each on
// paths resolved name by name, so that a link that another account placed never turns root's
// work against another file.
//
// Attributes, when given, hold whatever the process's umask: a new folder or file is made
// owner-only first, then given its owner and group, then its permissions. chown comes before
// chmod because changing the owner may clear the set-id bits that chmod would have set.
#include "platform/FileSystem.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "SafePath.h"
#include "UniqueFd.h"

namespace velnor::platform {
namespace {

support::Result<support::Attributes> resolved(const FileAttributes& attributes) {
    return support::resolveAttributes(attributes.permissions, attributes.owner, attributes.group);
}

// Whether an absolute path that crosses no symbolic link at all names a folder, resolved by the
// kernel in one call: no link is followed, so there is nothing to trust. Nothing when that call
// cannot tell (a link on the way, an entry that is no folder, or any other failure).
std::optional<bool> folderWithoutLinksExists(const std::string& path) {
    if (path.empty() || path.front() != '/') {
        return std::nullopt;
    }
    open_how how{};
    how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    support::UniqueFd folder(
        static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof(how))));
    if (folder.valid()) {
        return true;
    }
    if (errno == ENOENT) {
        return false;
    }
    return std::nullopt;
}

}  // namespace

bool fileExists(const std::string& path, bool* isDirectory) {
    // The idle housekeeping tests its two folders every few seconds, and they hold no link: one
    // call then does what the walk name by name does in two per name.
    if (std::optional<bool> folder = folderWithoutLinksExists(path)) {
        if (*folder && isDirectory != nullptr) {
            *isDirectory = true;
        }
        return *folder;
    }
    // A path that crosses a link which is not safe to follow counts as missing: whoever then
    // creates it meets the link again and says why it stops there.
    auto entry = support::openSafely(path);
    struct stat status;
    if (!entry || fstat(entry->get(), &status) != 0) {
        return false;
    }
    if (isDirectory != nullptr) {
        *isDirectory = S_ISDIR(status.st_mode);
    }
    return true;
}

support::Status createDirectory(const std::string& path,
                                const std::optional<FileAttributes>& attributes) {
    // Accounts first: an unknown one must fail before anything is made.
    std::optional<support::Attributes> numeric;
    if (attributes) {
        auto found = resolved(*attributes);
        if (!found) {
            return found.failure();
        }
        numeric = std::move(*found);
    }
    return support::createFolders(path, numeric);
}

support::Status setAttributes(const std::string& path, const FileAttributes& attributes) {
    auto numeric = resolved(attributes);
    if (!numeric) {
        return numeric.failure();
    }
    // A data folder may be a link that root placed, and what must belong to the service
    // account is the folder it names: the link is followed where that is safe.
    return support::setAttributes(path, *numeric);
}

support::Status createFile(const std::string& path, const std::string& contents,
                           const FileAttributes& attributes) {
    auto numeric = resolved(attributes);
    if (!numeric) {
        return numeric.failure();
    }
    return support::replaceFile(path, contents, *numeric);
}

}  // namespace velnor::platform
