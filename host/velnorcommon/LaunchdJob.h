// What a job file tells the launchd stand-in about running its job.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Export.h"
#include "Result.h"

namespace velnor {

// How long a job has between SIGTERM and SIGKILL when its file does not say, as launchd gives it.
constexpr int kDefaultExitTimeOutSeconds = 20;

struct LaunchdJob {
    // Program, when given, is what runs; otherwise the first of ProgramArguments. Either way
    // ProgramArguments is the argument vector that the program sees.
    std::optional<std::string> program;
    std::vector<std::string> programArguments;
    std::optional<std::string> userName;
    std::optional<std::string> groupName;
    std::optional<std::string> workingDirectory;
    std::optional<std::string> standardOutPath;
    std::optional<std::string> standardErrorPath;
    std::vector<std::pair<std::string, std::string>> environmentVariables;
    // Umask: the file mode creation mask the program starts with; a daemon's default otherwise.
    std::optional<mode_t> umask;
    // ExitTimeOut: how long a stopping job's process may take to end before it is killed.
    int exitTimeOutSeconds = kDefaultExitTimeOutSeconds;
    // RunAtLoad and Disabled: whether a long-running host starts the job when it starts.
    bool runAtLoad = false;
    bool disabled = false;
};

// The job that the open job file describes; path names it in messages. Fails when the file
// cannot be read, is not a dictionary, has no ProgramArguments with at least one string, or
// holds one of the keys above with a value of the wrong kind (RunAtLoad and Disabled are
// booleans), a Umask that is not an integer from 0 to 0777, or an ExitTimeOut that is not a whole
// number of seconds from 1 to INT_MAX (launchd reads 0 as "never kill", which would leave a stop
// that hangs for ever). Other keys, of any kind, are not looked at.
VELNOR_EXPORT support::Result<LaunchdJob> readLaunchdJob(int file, const std::string& path);

}  // namespace velnor
