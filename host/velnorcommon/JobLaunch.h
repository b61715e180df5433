// Starting a job's program as a daemon: detached from the host, in a session of its own, as the
// job's account, with its standard files, working folder and environment.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "LaunchdJob.h"
#include "Result.h"
#include "UniqueFd.h"

namespace velnor {

// The account that a job runs as.
struct JobCredentials {
    uid_t uid;
    gid_t gid;
    std::vector<gid_t> supplementaryGroups;
};

// A daemon's files are not writable by others unless its job says so itself (Umask).
constexpr mode_t kDaemonUmask = 022;

// Everything that the new process needs, worked out in the host beforehand, so that the
// process itself only makes system calls between fork and exec.
struct LaunchPlan {
    std::string executable;  // the program's path, absolute or relative to workingDirectory
    std::vector<std::string> arguments;
    std::vector<std::string> environment;       // "NAME=value"
    std::optional<JobCredentials> credentials;  // nothing: the host's own account
    std::string workingDirectory;
    std::string standardOutPath;
    std::string standardErrorPath;
    mode_t umask = kDaemonUmask;
};

// The plan for the job. The environment is a fixed PATH, then HOME, USER, LOGNAME and SHELL of
// the job's account when it names a user, then the job's EnvironmentVariables over them: the
// host's own environment never reaches a daemon. A program named without a '/' is looked up in
// that PATH. Without WorkingDirectory a job runs in "/", and standard output and error go to
// /dev/null unless the job names files. Fails when an account is unknown or the program
// cannot be found.
support::Result<LaunchPlan> planLaunch(const LaunchdJob& job);

// The identity of a started process: its pid and its start time from /proc/PID/stat, which
// tell it apart from a later process that reuses the pid.
struct StartedProcess {
    pid_t pid;
    std::uint64_t startTime;
    bool operator==(const StartedProcess&) const = default;
};

struct LaunchOutcome {
    // Known once the new process has set itself up and said who it is.
    std::optional<StartedProcess> process;
    // True once the program runs; it may end at any time after that.
    bool executed = false;
    // Why the program does not run, in one line, when it does not.
    std::string failure;
};

// Runs the plan in a new process whose parent is not the host (the host never holds a zombie),
// in a session of its own, with default signal handling, the plan's umask, standard input from
// /dev/null and no descriptor of the host's. The process takes the job's account before
// anything else, so that it enters the working folder and opens its output files (appending,
// created 0644 when missing, owned by the job's account) with the job's rights only: a job
// file can never make the host write where the job's account may not. beforeProgram is
// called in the host once the process is set up, before it executes the program; when it
// answers false the process ends without running anything. Returns once the program has been
// executed or has failed to; it does not wait for the program to do anything.
LaunchOutcome launchDetached(const LaunchPlan& plan,
                             const std::function<bool(const StartedProcess&)>& beforeProgram);

// One of the files that a job's program writes to.
enum class OutputFile { StandardOutput, StandardError };

// The plan's file for which, opened for appending (created 0644 less the job's umask when
// missing) exactly as the program's own process would open it: by a short-lived child that takes
// the job's account first and, from the job's working folder, hands the descriptor back. So a
// link that the account laid where its output goes can never make the host write elsewhere.
// Fails, in the words that launchDetached uses, when the account may not open it.
support::Result<support::UniqueFd> openAsJobAccount(const LaunchPlan& plan, OutputFile which);

}  // namespace velnor
