// The temporary files of whole-file replacements: a new file is written beside the one it
// replaces as ".NAME.XXXXXX", flushed, then renamed over NAME, so that a reader sees the old file
// or the new one and never a mix.
//
// A write killed before its rename leaves its temporary file behind; the next write of the same
// file removes such leftovers first. Each write has a name of its own rather than a fixed one, so
// two writers never share a file: a writer whose temporary file is removed fails whole, and never
// renames another's half-written file into place.
#pragma once

#include <string>

#include "Result.h"
#include "UniqueFd.h"

namespace velnor::support {

// A new, empty temporary file for finalName in the folder open at folder, created with O_EXCL
// and O_NOFOLLOW and readable by its creator alone; its name in *name.
Result<UniqueFd> createTemporaryFile(int folder, const std::string& finalName, std::string* name);

// Removes what earlier writes of finalName left in the folder open at folder. A folder of that
// name stays; nothing is followed, since unlinkat removes the entry itself.
void removeLeftTemporaries(int folder, const std::string& finalName);

}  // namespace velnor::support
