// Where the host keeps its own state: the audit trail, the restart ledger and the certificate
// velnord makes for the console. Root's alone, 0700: the trail names who changed what, and the
// certificate's key is secret. Whoever creates it first creates it so.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "Result.h"
#include "RootFolder.h"
#include "UniqueFd.h"

namespace velnor::host {

inline constexpr const char* kStateFolder = "/var/lib/velnor";
inline constexpr mode_t kStateFolderMode = 0700;

// The state folder at path (the real one unless a test says otherwise), created root's and 0700
// when missing; fails as openRootOnlyFolder does, naming the folder as what it is used for.
inline support::Result<support::UniqueFd> openStateFolder(
    const std::string& path = kStateFolder, std::string_view name = "velnor state folder") {
    return support::openRootOnlyFolder(path, name, kStateFolderMode);
}

}  // namespace velnor::host
