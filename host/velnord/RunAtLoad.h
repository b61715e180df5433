// What launchd does at boot, done when the daemon starts: the jobs whose files say RunAtLoad, and
// are not Disabled, are started.
#pragma once

#include <string>

namespace velnor::host {

// The folder of the machine's own jobs, the only one whose jobs run at load.
inline constexpr const char* kRunAtLoadFolder = "/Library/LaunchDaemons";

// Starts each job of folder (LABEL.plist) that says RunAtLoad true and not Disabled, in the
// order of the labels, through the host library's own start. A file that root cannot trust (a
// link, or it or a folder above it not root's alone) or cannot read is logged and skipped, as is
// the whole folder when it cannot be trusted; a failed start is logged by the library.
void startJobsThatRunAtLoad(const std::string& folder);

}  // namespace velnor::host
