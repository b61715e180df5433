// Whole-file reads and writes: property-list files, job files and job records.
//
// Every failure names the file and gives the system's reason
// (`could not open "/a/b": No such file or directory`), and carries its errno.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "Export.h"
#include "Result.h"

namespace velnor {

// The whole of the regular file at path. A failure's error() is the failing call's errno, so
// that callers can tell a missing file (ENOENT) from an unreadable one.
VELNOR_EXPORT support::Result<std::string> readWholeFile(const std::string& path);

// The same for a file that root reads where other accounts may have put links: path is resolved
// as SafePath.h resolves it, a link followed only where the folder that holds it is root's alone.
support::Result<std::string> readWholeFileSafely(const std::string& path);

// Replaces the file at path with one holding contents: written to a temporary file in the same
// folder, flushed to disk and renamed over path, so that a reader sees the old file or the new
// one, never a mix. The new file takes the mode and owner of the one it replaces, or exactly
// newFileMode when there was none. When path is a symbolic link, the file that it points to is
// replaced and the link stays; links are followed only where SafePath.h follows them, so that
// a link that another account placed never turns the write against another file. On failure the
// temporary file is removed and the old file is left as it was. Temporary files that an interrupted
// write left beside path (".NAME.XXXXXX") are removed first.
support::Status replaceWholeFileAtomically(const std::string& path, std::string_view contents,
                                           mode_t newFileMode);

}  // namespace velnor
