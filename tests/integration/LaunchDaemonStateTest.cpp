// The launchd stand-in with real processes, job files and records in a throwaway folder.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <set>

#include "HostLibTestSupport.h"
#include "LaunchDaemon.h"
#include "LaunchdJobs.h"
#include "ProcessStat.h"
#include "PropertyListFile.h"

namespace velnor {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::TemporaryFolder;

constexpr const char* kLabel = "org.example.sleeper";

PlistDictionary jobRunning(std::initializer_list<const char*> arguments) {
    return {{"Label", kLabel},
            {"ProgramArguments", PlistArray(arguments.begin(), arguments.end())}};
}

class LaunchdStandIn : public ::testing::Test {
  protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "running a job as another account needs root";
        }
        // Orphaned daemons come back to this process instead of the machine's init, so that the
        // tests can watch them end and leave no zombie behind.
        ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        ASSERT_EQ(::chmod(folder_.path().c_str(), 0755), 0);
        ASSERT_EQ(::mkdir(systemJobs_.c_str(), 0755), 0);
    }

    void TearDown() override {
        for (pid_t pid : started_) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
        int status = 0;
        EXPECT_EQ(::waitpid(-1, &status, WNOHANG), -1) << "a process of the test was left over";
        ::prctl(PR_SET_CHILD_SUBREAPER, 0);
    }

    void installJob(const std::string& folder, const PlistDictionary& job) {
        ASSERT_TRUE(writePropertyListAtomically(folder + "/" + kLabel + ".plist", PlistValue(job)));
    }

    // The process that the record names, remembered so that it is ended after the test.
    std::optional<StartedProcess> recordedProcess() {
        auto process = parseJobRecord(testing::fileText(jobs_.recordPath(kLabel)));
        if (process) {
            started_.insert(process->pid);
        }
        return process;
    }

    // Waits until the process has ended, leaving it a zombie; the signal that ended it.
    int waitForEnd(pid_t pid) {
        siginfo_t info{};
        EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
        return info.si_status;
    }

    // launchd trusts a job file only when every folder above it is root's alone: not /tmp.
    TemporaryFolder folder_{"/run/velnor-hostlib-XXXXXX"};
    const std::string systemJobs_ = folder_ / "System";
    const std::string records_ = folder_ / "run/velnor/launchd";
    std::vector<std::string> messages_;
    // A stop waits 50 ms for the job to end.
    LaunchdJobs jobs_{{{systemJobs_, folder_ / "Library"}, records_},
                      [this](const std::string& message) { messages_.push_back(message); },
                      50};
    std::set<pid_t> started_;
};

// Starting the job detached, as its account, stopping it and a program that cannot run are shown
// with the real host; a job that will not stop and a reused pid only here.
TEST_F(LaunchdStandIn, AJobStillWindingDownIsNotTakenForARunningOne) {
    // The job ignores SIGTERM, so after a stop it stays until the test ends it; it says when
    // it has set that up through a fifo.
    const std::string ready = folder_ / "ready";
    ASSERT_EQ(::mkfifo(ready.c_str(), 0600), 0);
    const std::string script = "trap '' TERM; echo ready > " + ready + "; exec /bin/sleep 1000";
    installJob(systemJobs_, jobRunning({"/bin/sh", "-c", script.c_str()}));
    ASSERT_TRUE(jobs_.start(kLabel)) << ::testing::PrintToString(messages_);
    const auto first = recordedProcess();
    ASSERT_TRUE(first.has_value());
    EXPECT_EQ(testing::fileText(ready), "ready\n");

    ASSERT_TRUE(jobs_.stop(kLabel));
    EXPECT_TRUE(jobs_.isRunning(kLabel)) << "the job's process is still there";
    EXPECT_FALSE(jobs_.start(kLabel)) << "a stopping job was taken for a running one";
    EXPECT_THAT(messages_, ElementsAre(HasSubstr("is still stopping after 50 ms")));

    ::kill(first->pid, SIGKILL);
    waitForEnd(first->pid);
    EXPECT_FALSE(jobs_.isRunning(kLabel)) << "a zombie counts as running";
    EXPECT_EQ(::waitpid(first->pid, nullptr, 0), first->pid);
    started_.erase(first->pid);
    ASSERT_TRUE(jobs_.start(kLabel));
    const auto second = recordedProcess();
    ASSERT_TRUE(second.has_value());
    EXPECT_NE(second->pid, first->pid);
    EXPECT_EQ(testing::fileText(ready), "ready\n");
    EXPECT_TRUE(jobs_.isRunning(kLabel)) << "a fresh start was taken for the stopping job";
}

TEST_F(LaunchdStandIn, RecordOfAReusedPidIsNotTakenForTheJob) {
    installJob(systemJobs_, jobRunning({"/bin/sleep", "1000"}));
    const pid_t bystander = ::fork();
    if (bystander == 0) {
        ::pause();  // until a signal ends it
        ::_exit(0);
    }
    started_.insert(bystander);
    const auto stat = readProcessStat("/proc", bystander);
    ASSERT_TRUE(stat.has_value());
    ASSERT_TRUE(std::filesystem::create_directories(records_));

    testing::writeText(jobs_.recordPath(kLabel), formatJobRecord({bystander, stat->startTime + 1}));
    EXPECT_FALSE(jobs_.isRunning(kLabel)) << "a pid alone was taken for the job";
    EXPECT_TRUE(jobs_.stop(kLabel));
    EXPECT_EQ(::waitpid(bystander, nullptr, WNOHANG), 0) << "stop signalled a stranger";

    testing::writeText(jobs_.recordPath(kLabel), formatJobRecord({bystander, stat->startTime}));
    EXPECT_TRUE(jobs_.isRunning(kLabel)) << "the process that the record names runs";
    EXPECT_TRUE(jobs_.stop(kLabel));
    EXPECT_EQ(waitForEnd(bystander), SIGTERM);
}

}  // namespace
}  // namespace velnor
