// Runs the real velnor program as a child process and collects what it printed and how it
// ended, for the host's integration tests.
#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velnor::testing {

// Environment variables to set (a value) or to remove (nullopt) in the child's environment,
// which is otherwise the test's own.
using EnvironmentChanges = std::map<std::string, std::optional<std::string>>;

struct VelnorRun {
    int exitStatus = -1;  // -1 when the process did not exit normally
    std::string out;
    std::string err;
};

class VelnorProcess {
  public:
    // Starts velnor with the arguments, the environment changes applied, and input as its
    // standard input. Fails the running test when it cannot be started.
    VelnorProcess(const std::vector<std::string>& arguments, const EnvironmentChanges& changes,
                  std::string_view input = {});
    // Kills and reaps a process that was never finished.
    ~VelnorProcess();
    VelnorProcess(const VelnorProcess&) = delete;
    VelnorProcess& operator=(const VelnorProcess&) = delete;

    pid_t pid() const { return pid_; }
    // True when the process has printed something on standard output yet, without waiting.
    bool hasWrittenOutput() const;
    // True when the process has ended, without waiting.
    bool hasEnded();
    // Reads both outputs to their end and waits for the process.
    VelnorRun finish();

  private:
    pid_t pid_ = -1;
    int out_ = -1;
    int err_ = -1;
    std::optional<int> waitStatus_;
};

// Starts velnor and finishes it.
VelnorRun runVelnor(const std::vector<std::string>& arguments, const EnvironmentChanges& changes,
                    std::string_view input = {});

}  // namespace velnor::testing
