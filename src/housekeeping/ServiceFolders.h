// The attributes of what the housekeeping creates.
#pragma once

#include "platform/FileSystem.h"

namespace velnor::postgres {

// Socket folder: the service account reads and searches it, its group may search it.
platform::FileAttributes socketFolderAttributes();
// Log folder: readable by everyone, written by the service account.
platform::FileAttributes logFolderAttributes();
// The log-directory migration's marker: an empty file for the service account only.
platform::FileAttributes migrationMarkerAttributes();

}  // namespace velnor::postgres
