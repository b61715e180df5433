// The launchd job files and job control of the host support library.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Export.h"

namespace velnor {

// The ordered strings under ProgramArguments in a job file.
using LaunchArguments = std::vector<std::string>;

// The strings under ProgramArguments of the property list at path; nothing when the file is
// missing, cannot be read whole, is not a dictionary, or has no such array of strings. Every
// reason but a missing file or a missing key goes to the log.
VELNOR_EXPORT std::optional<LaunchArguments> GetLaunchDaemonServiceConfigArgs(
    const std::string& path);

// Replaces ProgramArguments in the job file at path, keeping every other key and value, the
// file's mode, owner and format (binary or XML), atomically. A missing file is created as XML
// holding just ProgramArguments. False, with the reason in the log and the old file left whole,
// when the file cannot be read whole, when it holds a ProgramArguments that is not an array of
// strings (the arguments were composed without it and would lose what it holds), when a string
// of the new file could not be carried exactly by its format (PlistText.h), or when it cannot be
// written.
VELNOR_EXPORT bool SetLaunchDaemonServiceConfigArgs(const std::string& path,
                                                    const LaunchArguments& arguments);

// state 1: has the job with this label run (true at once when it already runs); state 0: sends
// it SIGTERM without waiting (true also when it does not run). False when the job file or its
// arguments are missing, an account is unknown, the program cannot be executed, or the signal
// cannot be sent; the reason goes to the log.
VELNOR_EXPORT bool SetLaunchDaemonServiceState(const std::string& label, int state);

// True when the job's recorded process still runs (same pid and same start time).
VELNOR_EXPORT bool GetLaunchDaemonServiceState(const std::string& label);

}  // namespace velnor
