// Folders and files that root keeps for itself (locks, sockets, tokens, keys): no other account
// may write to them, so nothing in them can be replaced by one.
#pragma once

#include <string>
#include <string_view>

#include "Result.h"
#include "UniqueFd.h"

namespace velnor::support {

// Opens a folder of root's that no one else may write to, creating it root's and 0755 when it is
// missing (its parent must exist). Refuses one that is not root's or that others may write to;
// name says what the folder is for in messages ("host lock folder").
Result<UniqueFd> openRootOnlyFolder(const std::string& folder, std::string_view name);

// The whole of a regular file that root alone may have written (root's, written by no one else,
// reached through folders that are root's alone), which others may not even read unless
// othersMayRead. Fails with `could not trust "PATH": REASON` on any other file.
Result<std::string> readRootsFile(const std::string& path, bool othersMayRead);

}  // namespace velnor::support
