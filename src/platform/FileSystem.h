// What the plug-in needs of the file system.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "PlistValue.h"
#include "Result.h"

namespace velnor::platform {

// Permissions, owner and group of a file or folder; owner and group are account names.
struct FileAttributes {
    mode_t permissions;
    std::string owner;
    std::string group;
};

/** True when an entry of any kind exists at path; a symbolic link counts as what it points to,
 * so a dangling one counts as nothing, and so does a path through a link in a folder that an
 * account other than root can write. isDirectory, when given, is set only when the entry
 * exists, and then tells whether it is a folder. */
bool fileExists(const std::string& path, bool* isDirectory = nullptr);

/** Creates the folder and every missing parent. attributes, when given, apply to the folder
 * and to every parent created along with it, whatever the process's umask. Succeeds when a
 * folder is already there. */
support::Status createDirectory(const std::string& path,
                                const std::optional<FileAttributes>& attributes);

/** Sets permissions, owner and group of path. */
support::Status setAttributes(const std::string& path, const FileAttributes& attributes);

/** Creates the file with contents and attributes; a file already there is replaced by the new
 * one renamed over it, never written through. */
support::Status createFile(const std::string& path, const std::string& contents,
                           const FileAttributes& attributes);

/** The property-list file at path as a dictionary; fails when it is missing, unreadable, not
 * a property list, or has no dictionary at its top level. */
support::Result<PlistDictionary> readPropertyListDictionary(const std::string& path);

/** Replaces the file at path with the dictionary as an XML property list, atomically, keeping
 * its mode and owner. */
support::Status writePropertyListDictionary(const std::string& path,
                                            const PlistDictionary& dictionary);

}  // namespace velnor::platform
