// The paths that root walks, resolved one name at a time through folder descriptors.
//
// Root works in folders that other accounts own: the service account owns the data folder and
// the parents that the housekeeping creates for its folders. A symbolic link placed there could
// turn root's chown, chmod, mkdir or file creation against any file of the machine. So every
// path is opened name by name with openat and O_NOFOLLOW, and a symbolic link is followed only
// when the folder that holds it is root's alone (owned by root, not writable by group or
// others); a link met anywhere else is refused, naming the link and the folder. The path ends
// as a descriptor, and every later change works on that descriptor, never on the path again.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "Result.h"
#include "UniqueFd.h"

namespace velnor::support {

// What a file or folder is to be given: permissions (set-id and sticky bits included), owner
// and group, with the names that messages show for the owner and group.
struct Attributes {
    mode_t permissions;
    uid_t owner;
    gid_t group;
    std::string shownOwnership;  // "owner:group"
};

// The attributes with owner and group looked up by name. Fails, naming the account, when either
// is unknown or cannot be looked up.
Result<Attributes> resolveAttributes(mode_t permissions, const std::string& owner,
                                     const std::string& group);

// An O_PATH descriptor of what path names, links followed where that is safe. When untrusted
// is given, it receives why the entry or a folder on the way is not root's alone (empty when
// every one is): `"/Library" is owned by an account other than root`. Fails with
// `could not open "PATH": REASON`; error() is ENOENT when something on the way is missing.
Result<UniqueFd> openSafely(const std::string& path, std::string* untrusted = nullptr);

// Whether what path names, links followed where safe, is a folder: false when it is missing,
// anything else, or reached through a link that is not safe to follow.
bool isFolder(const std::string& path);

// Where a file lies, for a rename over it: the folder that holds it, as an O_PATH descriptor, its
// name there, and its path as messages show it.
struct Placement {
    UniqueFd folder;
    std::string name;
    std::string shownPath;
};

// Where the file that path names lies, links followed where safe: a link at the end of path is
// followed too, so that a rename over the placement replaces the file that the link names and
// the link stays. A last name with nothing there is no failure; that is where a new file goes.
// Fails like openSafely.
Result<Placement> placeSafely(const std::string& path);

// The descriptor opened again with flags (O_RDONLY, ...), as the same file: never by its path.
Result<UniqueFd> reopen(int pathDescriptor, int flags, const std::string& shownPath);

// Creates the folder and every missing parent. With attributes, every folder created gets
// them exactly, whatever the umask; without, it gets what the umask leaves of 0777. A folder
// already there counts as success and keeps its attributes. On failure, the folders that the
// call created are removed again, and the message names the first folder that could not be
// made: `could not create folder "/a/file/b": Not a directory`.
Status createFolders(const std::string& path, const std::optional<Attributes>& attributes);

// Gives what path names (links followed where safe) its owner, group, then permissions.
Status setAttributes(const std::string& path, const Attributes& attributes);

// Puts a new file with contents and attributes at path: created with O_EXCL under a temporary
// name in the same folder, given its attributes, written, flushed, then renamed over whatever
// stood there. What stood there is never written through, so a hard link planted in its place
// leaves the file it links to untouched. On failure nothing is left and the old file stays.
Status replaceFile(const std::string& path, std::string_view contents,
                   const Attributes& attributes);

// The messages of a failed change of owner or permissions.
Failure ownerFailure(const std::string& path, const Attributes& attributes, std::string_view reason,
                     int error = 0);
Failure permissionsFailure(const std::string& path, mode_t permissions, int error);

}  // namespace velnor::support
