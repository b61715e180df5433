// The launchd stand-in: runs the jobs that job files describe, and remembers each started
// process in a record file, so that any later host process can tell whether it still runs and
// stop it.
//
// A job is found by its label as LABEL.plist in the job folders, searched in order; as launchd
// does, it is run only when the file and every folder above it are owned by root and not
// writable by group or others. Its record is the file LABEL in the record folder, holding
// "PID STARTTIME\n": the pid and the start time that /proc/PID/stat gave the process, so that a
// later process that reuses the pid is never taken for the job.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "JobLaunch.h"
#include "Result.h"

namespace velnor {

class LaunchdJobs {
  public:
    struct Folders {
        std::vector<std::string> jobFolders;
        std::string recordFolder;
    };
    // Receives one line for each failure, without the log prefix.
    using FailureLog = std::function<void(const std::string& message)>;

    // How long a start waits, by default, for a stopping job's process to end.
    static constexpr int kDefaultStopGraceMilliseconds = 10000;

    LaunchdJobs(Folders folders, FailureLog log,
                int stopGraceMilliseconds = kDefaultStopGraceMilliseconds);

    // The machine's jobs: /System/Library/LaunchDaemons, then /Library/LaunchDaemons, records
    // under /var/run/velnor/launchd, failures to the system log.
    static LaunchdJobs onThisMachine();

    // True at once when the job runs; otherwise true once its program has been executed (it
    // may end at any time after that). A job that was asked to stop and is still winding down
    // does not count as running: its process is awaited for up to the stop grace time, then the job
    // is started afresh, as launchd does for a job that is being removed. False, with the reason
    // logged, when the label is not a file name, the job file is missing or unusable, an account is
    // unknown, the program cannot be executed or its record cannot be written; no record is then
    // left.
    bool start(const std::string& label);

    // Sends SIGTERM to the job's process without waiting for it to end, and remembers that it
    // was asked to stop (the file LABEL.stopping beside the record). True also when the job
    // does not run. False, with the reason logged, when there is no job file or the signal
    // cannot be sent.
    bool stop(const std::string& label);

    // True when the recorded process still runs: same pid, same start time, not a zombie.
    bool isRunning(const std::string& label) const;

    std::string recordPath(const std::string& label) const;

  private:
    std::string stoppingPath(const std::string& label) const;
    // True when this very process was asked to stop.
    bool wasAskedToStop(const std::string& label, const StartedProcess& process) const;
    // Waits up to the grace time for the process to end. False, with the reason logged, when
    // it is still there.
    bool awaitEnd(const std::string& label, const StartedProcess& process) const;
    std::optional<StartedProcess> runningProcess(const std::string& label) const;
    support::Status writeRecord(const std::string& label, const StartedProcess& process) const;
    support::Status signalToStop(const StartedProcess& process) const;
    bool refuse(const char* action, const std::string& label, const std::string& why) const;

    Folders folders_;
    FailureLog log_;
    int stopGraceMilliseconds_;
};

// The text of a record, and the process that a record's text names (nothing when the text is
// not a record).
std::string formatJobRecord(const StartedProcess& process);
std::optional<StartedProcess> parseJobRecord(const std::string& text);

}  // namespace velnor
