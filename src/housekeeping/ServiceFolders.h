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

// Creates the folder, with its missing parents, unless anything at all stands at path; logs the
// creation, or its failure, naming the folder by its role ("socket", "log"). True when the
// folder was missing, whether or not it could be created.
bool createMissingFolder(const char* path, const platform::FileAttributes& attributes,
                         const char* role);

}  // namespace velnor::postgres
