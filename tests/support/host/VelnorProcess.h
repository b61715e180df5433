// Runs the real velnor program as a child process and collects what it printed and how it
// ended; and a fixture that gives each such test a scratch folder and an environment of its own.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
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
    // Waits for the process and collects both outputs.
    VelnorRun finish();

  private:
    pid_t pid_ = -1;
    int in_ = -1;
    int out_ = -1;
    int err_ = -1;
    std::optional<int> waitStatus_;
};

class HostFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "velnor runs only as root";
        }
        char pattern[] = "/tmp/velnor-host-test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr) << "cannot create a scratch folder";
        folder_ = pattern;
    }
    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }

    std::string path(const std::string& name) const { return folder_ + "/" + name; }
    // Inside a folder that velnor has to create, never under /var/run.
    std::string lockPath() const { return path("run/host.lock"); }

    // The test plug-in unless --plugin names another, the lock in the scratch folder, and no
    // database socket chosen from outside.
    EnvironmentChanges environment() const {
        return {{"VELNOR_LOCK_FILE", lockPath()},
                {"VELNOR_PLUGIN", VELNOR_TEST_PLUGIN},
                {"PGHOST", std::nullopt}};
    }

    VelnorRun velnor(const std::vector<std::string>& arguments, std::string_view input = {}) {
        return VelnorProcess(arguments, environment(), input).finish();
    }

    std::string writeFile(const std::string& name, std::string_view content) const {
        std::string file = path(name);
        std::ofstream(file, std::ios::binary) << content;
        return file;
    }

  private:
    std::string folder_;
};

}  // namespace velnor::testing
