// Folders and files that root keeps for itself (locks, sockets, tokens, keys): no other account
// may write to them, so nothing in them can be replaced by one.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>
#include <string_view>

#include "Result.h"
#include "UniqueFd.h"

namespace velnor::support {

// Why a folder is not fit to hold root's files: whoever may write to it can replace them. Empty
// when it is root's and no one else may write to it.
std::string untrustedFolderBecause(const struct stat& status);

// Opens a folder of root's that no one else may write to, creating it root's and with mode (0755
// unless said) when it is missing (its parent must exist). Refuses one that is not root's, that
// others may write to, or a symbolic link in its place; name says what the folder is for in
// messages ("host lock folder").
Result<UniqueFd> openRootOnlyFolder(const std::string& folder, std::string_view name,
                                    mode_t mode = 0755);

// The whole of a regular file that root alone may have written (root's, written by no one else,
// reached through folders that are root's alone), which others may not even read unless
// othersMayRead. Fails with `could not trust "PATH": REASON` on any other file.
Result<std::string> readRootsFile(const std::string& path, bool othersMayRead);

}  // namespace velnor::support
