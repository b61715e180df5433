// Job control: a job's state asked and changed, through systemd where it runs the machine and
// through the host library's own jobs elsewhere.
#include <string>

#include "HostLog.h"
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

}  // namespace

bool SetLaunchDaemonServiceState(const std::string& label, int state) {
    switch (state) {
        case 1:
            return withJobsOfThisMachine([&](auto jobs) { return jobs.start(label); });
        case 0:
            return withJobsOfThisMachine([&](auto jobs) { return jobs.stop(label); });
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
