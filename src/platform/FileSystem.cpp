// The file system on Linux: existence tests, folders and files with exact attributes.
//
// Attributes, when given, hold whatever the process's umask: a new folder or file is made
// owner-only first, then given its owner and group, then its permissions. chown comes before
// chmod because changing the owner may clear the set-id bits that chmod would have set.
#include "platform/FileSystem.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "UniqueFd.h"

namespace velnor::platform {
namespace {

// The mode that new folders and files have until their attributes are set: nobody but the
// creator can use them in between.
constexpr mode_t kPrivateFolderMode = 0700;
constexpr mode_t kPrivateFileMode = 0600;
// Without attributes a folder gets what the umask leaves of everything.
constexpr mode_t kDefaultFolderMode = 0777;
// Permission bits, set-id and sticky bits: the part of a mode that chmod sets.
constexpr mode_t kPermissionBits = 07777;
// Where the buffer of an account lookup stops growing: no account record is this large.
constexpr std::size_t kLargestAccountRecord = 1 << 20;

struct Ownership {
    uid_t owner;
    gid_t group;
};

// The system's text for an error number.
std::string systemReason(int error) {
    char buffer[256];
    // The GNU strerror_r returns the text, which need not be in buffer.
    return strerror_r(error, buffer, sizeof buffer);
}

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

std::string octal(mode_t mode) {
    char text[16];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & kPermissionBits));
    return text;
}

FileSystemStatus folderFailure(const std::string& folder, int error) {
    return FileSystemStatus::failure("could not create folder " + quoted(folder) + ": " +
                                     systemReason(error));
}

FileSystemStatus ownerFailure(const std::string& path, const FileAttributes& attributes,
                              int error) {
    return FileSystemStatus::failure("could not set owner of " + quoted(path) + " to " +
                                     attributes.owner + ":" + attributes.group + ": " +
                                     systemReason(error));
}

FileSystemStatus permissionsFailure(const std::string& path, mode_t permissions, int error) {
    return FileSystemStatus::failure("could not set permissions of " + quoted(path) + " to " +
                                     octal(permissions) + ": " + systemReason(error));
}

// Looks name up with getpwnam_r or getgrnam_r, growing the buffer until the record fits.
// Returns 0 with *found set, or the error number of a lookup that failed for another reason
// than the name being unknown.
template <typename Entry, typename Id>
int lookUpAccount(int (*lookup)(const char*, Entry*, char*, std::size_t, Entry**),
                  Id Entry::*idField, const std::string& name, Id* id, bool* found) {
    std::vector<char> storage(1024);
    for (;;) {
        Entry entry;
        Entry* result = nullptr;
        const int error = lookup(name.c_str(), &entry, storage.data(), storage.size(), &result);
        if (error == ERANGE && storage.size() < kLargestAccountRecord) {
            storage.resize(storage.size() * 2);
            continue;
        }
        // The name service reports an unknown name by an empty result, but some back ends
        // report it by one of these errors instead.
        if (error == 0 || error == ENOENT || error == ESRCH || error == EBADF || error == EPERM) {
            *found = result != nullptr;
            if (*found) {
                *id = entry.*idField;
            }
            return 0;
        }
        return error;
    }
}

// The numeric owner and group of attributes. Fails, naming the account, when either name is
// unknown or cannot be looked up.
FileSystemStatus resolveOwnership(const FileAttributes& attributes, Ownership* ownership) {
    bool found = false;
    if (const int error =
            lookUpAccount(getpwnam_r, &passwd::pw_uid, attributes.owner, &ownership->owner, &found);
        error != 0) {
        return FileSystemStatus::failure("could not look up account " + quoted(attributes.owner) +
                                         ": " + systemReason(error));
    }
    if (!found) {
        return FileSystemStatus::failure("unknown account " + quoted(attributes.owner));
    }
    if (const int error =
            lookUpAccount(getgrnam_r, &group::gr_gid, attributes.group, &ownership->group, &found);
        error != 0) {
        return FileSystemStatus::failure("could not look up group " + quoted(attributes.group) +
                                         ": " + systemReason(error));
    }
    if (!found) {
        return FileSystemStatus::failure("unknown group " + quoted(attributes.group));
    }
    return FileSystemStatus::success();
}

// Owner and group first, then the permissions, on an open file or folder. Returns 0, or the
// error number of the change that failed with *ownerFailed telling which one it was.
int applyAttributes(int descriptor, const Ownership& ownership, mode_t permissions,
                    bool* ownerFailed) {
    *ownerFailed = true;
    if (fchown(descriptor, ownership.owner, ownership.group) != 0) {
        return errno;
    }
    *ownerFailed = false;
    if (fchmod(descriptor, permissions & kPermissionBits) != 0) {
        return errno;
    }
    return 0;
}

std::string withoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

// The folder that holds path: "." for a bare name, "/" at the top.
std::string parentFolder(const std::string& path) {
    const auto slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    if (slash == 0) {
        return "/";
    }
    return withoutTrailingSlashes(path.substr(0, slash));
}

bool isFolder(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Walks up from folder to the nearest entry that exists, and lists the folders to create on
// the way, deepest first. Fails when that entry is not a folder or cannot be examined.
FileSystemStatus findMissingFolders(const std::string& folder, std::vector<std::string>* missing) {
    std::string current = withoutTrailingSlashes(folder);
    for (;;) {
        struct stat status;
        if (stat(current.c_str(), &status) == 0) {
            if (S_ISDIR(status.st_mode)) {
                return FileSystemStatus::success();
            }
            // Name the first folder that cannot be made, with the reason mkdir would give.
            return missing->empty() ? folderFailure(current, EEXIST)
                                    : folderFailure(missing->back(), ENOTDIR);
        }
        // ENOTDIR: a file stands further up; the walk finds it and names it as above.
        if (errno != ENOENT && errno != ENOTDIR) {
            return folderFailure(current, errno);
        }
        const int error = errno;
        std::string parent = parentFolder(current);
        // "/" and "." have no parent to try: when even they are missing, give up.
        if (parent == current) {
            return folderFailure(current, error);
        }
        missing->push_back(std::move(current));
        current = std::move(parent);
    }
}

// Removes the folders that a failed call created, deepest first, so that it leaves nothing
// behind. A folder that someone else has filled meanwhile stays.
void removeFolders(const std::vector<std::string>& created) {
    for (auto folder = created.rbegin(); folder != created.rend(); ++folder) {
        rmdir(folder->c_str());
    }
}

FileSystemStatus secureNewFolder(const std::string& folder, const FileAttributes& attributes,
                                 const Ownership& ownership) {
    // Through a descriptor, so that a link put in place of the new folder is not followed.
    support::UniqueFd descriptor(
        open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!descriptor.valid()) {
        return ownerFailure(folder, attributes, errno);
    }
    bool ownerFailed = false;
    if (const int error =
            applyAttributes(descriptor.get(), ownership, attributes.permissions, &ownerFailed);
        error != 0) {
        return ownerFailed ? ownerFailure(folder, attributes, error)
                           : permissionsFailure(folder, attributes.permissions, error);
    }
    return FileSystemStatus::success();
}

// Makes one missing folder. *created tells whether this call made it: a folder that another
// process makes meanwhile counts as success, but keeps the attributes that it was given.
FileSystemStatus makeFolder(const std::string& folder, bool secured, bool* created) {
    *created = mkdir(folder.c_str(), secured ? kPrivateFolderMode : kDefaultFolderMode) == 0;
    const int error = errno;
    if (*created || (error == EEXIST && isFolder(folder))) {
        return FileSystemStatus::success();
    }
    return folderFailure(folder, error);
}

// Opens path for writing without following a link, creating it owner-only when it is missing.
// *created tells whether this call made the file.
support::UniqueFd openForReplacing(const std::string& path, bool* created) {
    support::UniqueFd file(
        open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kPrivateFileMode));
    *created = file.valid();
    if (!*created && errno == EEXIST) {
        // O_NONBLOCK: a FIFO in the way fails at once instead of waiting for a reader.
        file =
            support::UniqueFd(open(path.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    }
    return file;
}

bool isRegularFile(int descriptor) {
    struct stat status;
    return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

bool writeAll(int descriptor, const std::string& contents) {
    std::size_t written = 0;
    while (written < contents.size()) {
        const ssize_t count =
            write(descriptor, contents.data() + written, contents.size() - written);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        written += static_cast<std::size_t>(count);
    }
    return true;
}

}  // namespace

bool fileExists(const std::string& path, bool* isDirectory) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
        return false;
    }
    if (isDirectory != nullptr) {
        *isDirectory = S_ISDIR(status.st_mode);
    }
    return true;
}

FileSystemStatus createDirectory(const std::string& path,
                                 const std::optional<FileAttributes>& attributes) {
    // Accounts first: an unknown one must fail before anything is made.
    Ownership ownership{};
    if (attributes) {
        if (auto resolved = resolveOwnership(*attributes, &ownership); !resolved.succeeded) {
            return resolved;
        }
    }
    std::vector<std::string> missing;
    if (auto found = findMissingFolders(path, &missing); !found.succeeded) {
        return found;
    }
    std::vector<std::string> created;
    for (auto folder = missing.rbegin(); folder != missing.rend(); ++folder) {
        bool madeHere = false;
        auto status = makeFolder(*folder, attributes.has_value(), &madeHere);
        if (status.succeeded && madeHere) {
            created.push_back(*folder);
            if (attributes) {
                status = secureNewFolder(*folder, *attributes, ownership);
            }
        }
        if (!status.succeeded) {
            removeFolders(created);
            return status;
        }
    }
    return FileSystemStatus::success();
}

FileSystemStatus setAttributes(const std::string& path, const FileAttributes& attributes) {
    Ownership ownership{};
    if (auto resolved = resolveOwnership(attributes, &ownership); !resolved.succeeded) {
        return resolved;
    }
    // chown, not lchown: a data folder may be a link, and what must belong to the service
    // account is the folder it names. chmod follows links as well.
    if (chown(path.c_str(), ownership.owner, ownership.group) != 0) {
        return ownerFailure(path, attributes, errno);
    }
    if (chmod(path.c_str(), attributes.permissions & kPermissionBits) != 0) {
        return permissionsFailure(path, attributes.permissions, errno);
    }
    return FileSystemStatus::success();
}

bool createFile(const std::string& path, const std::string& contents,
                const FileAttributes& attributes) {
    Ownership ownership{};
    if (!resolveOwnership(attributes, &ownership).succeeded) {
        return false;
    }
    bool created = false;
    support::UniqueFd file = openForReplacing(path, &created);
    if (!file.valid() || !isRegularFile(file.get())) {
        return false;
    }
    // The attributes change before the old contents go, so that a file which cannot be given
    // them keeps what it held.
    bool ownerFailed = false;
    if (applyAttributes(file.get(), ownership, attributes.permissions, &ownerFailed) != 0) {
        if (created) {
            unlink(path.c_str());
        }
        return false;
    }
    const bool written =
        ftruncate(file.get(), 0) == 0 && writeAll(file.get(), contents) && file.close() == 0;
    if (!written) {
        // Half-written contents must not pass for the file that was asked for.
        unlink(path.c_str());
    }
    return written;
}

}  // namespace velnor::platform
