// The launchd stand-in: runs the jobs that job files describe, and remembers each started
// process in a record file, so that any later host process can tell whether it still runs and
// stop it.
//
// A job is found by its label as LABEL.plist in the job folders, searched in order; as launchd
// does, it is run only when the file and every folder above it are owned by root and not
// writable by group or others. Once started, a job is known by its record, the file LABEL in the
// record folder, holding "PID STARTTIME EXITTIMEOUT\n": the pid and the start time that
// /proc/PID/stat gave the process, so that a later process that reuses the pid is never taken
// for the job, and the job's ExitTimeOut in seconds. The record alone answers for the running
// job: its file may be rewritten or removed meanwhile, and the next start reads it as it is then.
//
// A stop is launchd's: SIGTERM now, and SIGKILL to the job's processes once its ExitTimeOut has
// passed. The stop leaves the mark LABEL.stopping beside the record, "PID STARTTIME KILLAT\n",
// KILLAT being the boot clock's milliseconds (CLOCK_BOOTTIME) by which the process must have
// ended; nothing here runs between calls, so whichever call first finds that moment passed sends
// the SIGKILL.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Export.h"
#include "JobLaunch.h"
#include "LaunchdJob.h"
#include "Result.h"

namespace velnor {

// How long a job's process may take to go once it has been sent SIGKILL, whether the host
// signals it itself or systemd does past the unit's stop timeout.
inline constexpr std::int64_t kKillSettleMilliseconds = 5000;

// A label names the job file (and the direct backend's record), so it must be one plain file
// name.
bool isUsableLabel(const std::string& label);

// Where this machine's job files are, searched in order: /System/Library/LaunchDaemons, then
// /Library/LaunchDaemons.
std::vector<std::string> jobFoldersOfThisMachine();

// Whether one of the job folders holds a file for label, usable or not.
bool hasJobFile(const std::vector<std::string>& jobFolders, const std::string& label);

// The job that label's file describes, the first of the job folders that holds one, read as
// launchd reads it: only when the file and every folder above it are root's alone, and through
// the descriptor that was checked. Fails with the reason, ENOENT when no folder holds one.
support::Result<LaunchdJob> readJobOfLabel(const std::vector<std::string>& jobFolders,
                                           const std::string& label);

// What the record of a started job holds.
struct JobRecord {
    StartedProcess process;
    int exitTimeOutSeconds;
};

// What the mark of a job asked to stop holds.
struct StopMark {
    StartedProcess process;
    std::int64_t killAtMilliseconds;  // CLOCK_BOOTTIME
};

// A job asked to stop whose process still runs: in how many milliseconds (0 when already past)
// its ExitTimeOut ends and a state query of the job kills what is left of it.
struct PendingStop {
    std::string label;
    std::int64_t millisecondsLeft;
};

class LaunchdJobs {
  public:
    struct Folders {
        std::vector<std::string> jobFolders;
        std::string recordFolder;
    };
    // Receives one line for each failure, without the log prefix.
    using FailureLog = std::function<void(const std::string& message)>;

    LaunchdJobs(Folders folders, FailureLog log);

    // The machine's jobs: /System/Library/LaunchDaemons, then /Library/LaunchDaemons, records
    // under /var/run/velnor/launchd, failures to the system log.
    VELNOR_EXPORT static LaunchdJobs onThisMachine();

    // True at once when the job runs and was not asked to stop; otherwise true once its program
    // has been executed (it may end at any time after that). A job asked to stop whose process
    // is still winding down is started once that process has gone, as launchd does: the start
    // waits for it until the stop's ExitTimeOut has passed, then kills what is left of it. False,
    // with the reason logged, when the label is not a file name, the old process survives
    // SIGKILL, the job file is missing or unusable, an account is unknown, the program cannot be
    // executed or its record cannot be written; no record is then left.
    bool start(const std::string& label);

    // Sends SIGTERM to the job's process without waiting for it to end, and marks the job as
    // stopping with the moment its ExitTimeOut ends. A job already stopping keeps its first
    // deadline (and is killed when that has passed). True also when the job does not run. False,
    // with the reason logged, when the job neither runs nor has a job file, or the signal cannot
    // be sent.
    bool stop(const std::string& label);

    // True while the recorded process still runs (same pid, same start time, not a zombie),
    // stopping included. A stopping job found past its deadline is killed first.
    bool isRunning(const std::string& label) const;

    std::string recordPath(const std::string& label) const;

    // Every job asked to stop whose process still runs, from the marks in the record folder; a
    // long-running host queries each job's state when its time has come, so that the SIGKILL
    // comes on time without waiting for someone's next call.
    VELNOR_EXPORT std::vector<PendingStop> pendingStops() const;

  private:
    std::string stopMarkPath(const std::string& label) const;
    std::optional<JobRecord> runningJob(const std::string& label) const;
    // The mark of this very process, when it was asked to stop.
    std::optional<StopMark> stopMarkOf(const std::string& label,
                                       const StartedProcess& process) const;
    // Kills the process when its deadline has passed. False, with the reason logged, when it
    // could not be killed.
    bool killWhenOverdue(const std::string& label, const StopMark& mark) const;
    // Waits for the process until its deadline, then kills it. False, with the reason logged,
    // when it is still there.
    bool awaitEndOrKill(const std::string& label, const StopMark& mark) const;
    bool kill(const std::string& label, const StopMark& mark) const;
    support::Status writeRecord(const std::string& label, const JobRecord& record) const;
    bool refuse(const char* action, const std::string& label, const std::string& why) const;

    Folders folders_;
    FailureLog log_;
};

// The text of a record or mark, and what a text holds (nothing when it is not one). A record
// written before records held the ExitTimeOut ("PID STARTTIME\n") is read with the default.
std::string formatJobRecord(const JobRecord& record);
std::optional<JobRecord> parseJobRecord(const std::string& text);
std::string formatStopMark(const StopMark& mark);
std::optional<StopMark> parseStopMark(const std::string& text);

}  // namespace velnor
