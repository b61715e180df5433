// launchd jobs on a machine that systemd runs: each started job is a transient service unit, and
// systemd supervises, stops and kills it as launchd would. Nothing is recorded here: systemd
// knows the running job by its unit's name, whatever becomes of the job file meanwhile, and the
// next start reads the file as it is then.
//
// The unit of the job labelled LABEL is "velnor-launchd-" + LABEL escaped + ".service". The
// escape is systemd's own for unit names: every byte other than an ASCII letter or digit, ':',
// '_' and '.' (and a '.' that begins the label) becomes "\xNN", two lowercase hex digits. A
// label holds no '/', so undoing the escapes of the middle part gives the label back.
//
// The job file's keys become the unit's properties: Program or the first of ProgramArguments
// the path of ExecStart, and ProgramArguments its argument vector as given (no shell);
// UserName and GroupName User and Group (systemd gives the user's supplementary groups as
// initgroups does); WorkingDirectory; the environment that the direct backend would give
// (PATH, HOME, USER, LOGNAME, SHELL, then EnvironmentVariables) Environment;
// StandardOutPath and StandardErrorPath are opened for appending as the job's account, as the
// direct backend's process opens them, and the descriptors handed over as
// StandardOutputFileDescriptor and StandardErrorFileDescriptor (else null, as launchd does):
// systemd would open a path as root, before it takes the account; Umask UMask; ExitTimeOut
// TimeoutStopUSec. The stop is launchd's: SIGTERM to the main process (KillMode=mixed), SIGKILL
// to whatever remains once ExitTimeOut has passed, and the unit is forgotten once it has ended,
// failed or not (CollectMode=inactive-or-failed), so that it can start again.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace velnor {

// True when systemd has booted this machine and so runs its launchd jobs.
bool systemdRunsThisMachine();

// The unit that runs the job labelled label; nothing when the label is not a file name or the
// unit's name would be longer than systemd takes.
std::optional<std::string> unitNameOfLabel(const std::string& label);

class SystemdJobs {
  public:
    // Receives one line for each failure, without the log prefix.
    using FailureLog = std::function<void(const std::string& message)>;

    SystemdJobs(std::vector<std::string> jobFolders, FailureLog log);

    // The machine's job folders, failures to the system log.
    static SystemdJobs onThisMachine();

    // True at once when the job's unit runs and is not stopping. A unit still stopping is first
    // waited for until it has gone (systemd kills what is left of it once its ExitTimeOut has
    // passed): a transient unit takes its properties only when it is made, and the new one must
    // run the job file as it is now. Then the job file is read and checked as the direct backend
    // does, and the unit is asked for without waiting for it to run. False, with the reason
    // logged, when the label is not usable, the old unit does not go, the job file is missing or
    // unusable, an account or the program is not found, or systemd refuses the unit.
    bool start(const std::string& label);

    // Asks systemd to stop the job's unit without waiting. True also when it does not run; false,
    // with the reason logged, when it neither runs nor has a job file, or systemd refuses.
    bool stop(const std::string& label);

    // True while the job's unit has a main process that has not ended, stopping included.
    bool isRunning(const std::string& label) const;

  private:
    bool refuse(const char* action, const std::string& label, const std::string& why) const;

    std::vector<std::string> jobFolders_;
    FailureLog log_;
};

}  // namespace velnor
