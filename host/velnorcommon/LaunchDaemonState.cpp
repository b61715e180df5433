// Job control: a job's state asked and changed, through systemd where it runs the machine and
// through the host library's own jobs elsewhere.
#include <chrono>
#include <string>

#include "HostLog.h"
#include "JobMoves.h"
#include "LaunchDaemon.h"
#include "LaunchdJobs.h"
#include "LaunchdSystemd.h"
#include "Result.h"

namespace velnor {
namespace {

// Where systemd runs the machine it runs the jobs; elsewhere the host library does.
template <typename Action>
bool withJobsOfThisMachine(Action action) {
    if (systemdRunsThisMachine()) {
        return action(SystemdJobs::onThisMachine());
    }
    return action(LaunchdJobs::onThisMachine());
}

JobMoveWatcher& jobMoveWatcher() {
    static JobMoveWatcher watcher;
    return watcher;
}

// True when the job runs and was not asked to stop: a start then moves nothing, and a stop
// does. A job whose process still winds down after a stop is started again once it has gone.
bool runsSteadily(const LaunchdJobs& jobs, const std::string& label) {
    if (!jobs.isRunning(label)) {
        return false;
    }
    for (const PendingStop& stop : jobs.pendingStops()) {
        if (stop.label == label) {
            return false;
        }
    }
    return true;
}

bool runsSteadily(const SystemdJobs& jobs, const std::string& label) {
    return jobs.isRunning(label);
}

// Makes the move and tells the watcher of it; a move that finds the job already where it was
// asked to go changes nothing, and is not told.
template <typename Jobs, typename Move>
bool moveTold(Jobs& jobs, const std::string& label, JobMoveKind kind, Move move) {
    if (!jobMovesWatched() || runsSteadily(jobs, label) == (kind == JobMoveKind::Start)) {
        return move();
    }
    const auto began = std::chrono::steady_clock::now();
    const bool done = move();
    tellJobMove(JobMove{label, kind, done, began});
    return done;
}

}  // namespace

void watchJobMoves(JobMoveWatcher watcher) {
    jobMoveWatcher() = std::move(watcher);
}

bool jobMovesWatched() {
    return static_cast<bool>(jobMoveWatcher());
}

void tellJobMove(const JobMove& move) {
    if (const JobMoveWatcher& watcher = jobMoveWatcher()) {
        watcher(move);
    }
}

bool SetLaunchDaemonServiceState(const std::string& label, int state) {
    switch (state) {
        case 1:
            return withJobsOfThisMachine([&](auto jobs) {
                return moveTold(jobs, label, JobMoveKind::Start, [&] { return jobs.start(label); });
            });
        case 0:
            return withJobsOfThisMachine([&](auto jobs) {
                return moveTold(jobs, label, JobMoveKind::Stop, [&] { return jobs.stop(label); });
            });
        default:
            logHostFailure(support::couldNot("change the state of job", label,
                                             "the state " + std::to_string(state) + " is unknown")
                               .message);
            return false;
    }
}

bool GetLaunchDaemonServiceState(const std::string& label) {
    return withJobsOfThisMachine([&](const auto& jobs) { return jobs.isRunning(label); });
}

}  // namespace velnor
