// The host lock: two velnor processes never run plug-in operations at the same time.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "HostFixture.h"

namespace velnor::testing {
namespace {

constexpr auto kObservationLimit = std::chrono::seconds(20);
constexpr auto kObservationPace = std::chrono::milliseconds(2);

// An exclusive flock of the test's own, on a file that it creates; -1 when it could not be had.
int lockExclusively(const std::string& file, int extraFlags = 0) {
    int descriptor = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (descriptor >= 0 && flock(descriptor, LOCK_EX | extraFlags) != 0) {
        close(descriptor);
        return -1;
    }
    return descriptor;
}

// True when /proc/locks shows pid waiting for a flock on the file with this inode; blocked
// waiters are the lines marked "->".
bool waitsForFlock(pid_t pid, ino_t inode) {
    std::ifstream locks("/proc/locks");
    std::string line;
    std::string inodeSuffix = ":" + std::to_string(inode);
    while (std::getline(locks, line)) {
        std::istringstream fields(line);
        std::string number, arrow, type, advisory, mode, device;
        pid_t owner = 0;
        if (fields >> number >> arrow >> type >> advisory >> mode >> owner >> device &&
            arrow == "->" && type == "FLOCK" && owner == pid && device.ends_with(inodeSuffix)) {
            return true;
        }
    }
    return false;
}

// Waits, within a bound, until velnor is blocked on the lock; false when it ended first or the
// bound passed.
bool becomesBlockedOnLock(VelnorProcess& process, ino_t inode) {
    auto deadline = std::chrono::steady_clock::now() + kObservationLimit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (waitsForFlock(process.pid(), inode)) {
            return true;
        }
        if (process.hasEnded()) {
            return false;
        }
        std::this_thread::sleep_for(kObservationPace);
    }
    return false;
}

class HostLockTest : public HostFixture {
  protected:
    void SetUp() override {
        HostFixture::SetUp();
        oldMask_ = umask(0);
        umask(oldMask_);
    }
    void TearDown() override {
        umask(oldMask_);
        HostFixture::TearDown();
    }

    mode_t oldMask_ = 0;
};

TEST_F(HostLockTest, OperationWaitsWhileAnotherHoldsTheLock) {
    ASSERT_EQ(mkdir(path("run").c_str(), 0755), 0);
    int held = lockExclusively(lockPath());
    ASSERT_GE(held, 0) << "cannot take the lock for the test";
    struct stat lockFile;
    ASSERT_EQ(stat(lockPath().c_str(), &lockFile), 0);

    VelnorProcess process(withTestPlugin({"--json", "call", "doIdleAtCount", "3"}), environment());
    bool blocked = becomesBlockedOnLock(process, lockFile.st_ino);
    EXPECT_TRUE(blocked) << "velnor never waited for the lock";
    EXPECT_FALSE(process.hasWrittenOutput()) << "velnor answered while the lock was held";
    EXPECT_FALSE(process.hasEnded()) << "velnor ended while the lock was held";

    close(held);
    VelnorRun run = process.finish();
    EXPECT_EQ(run.exitStatus, 0) << run.err;
    EXPECT_EQ(run.out, "3\n") << "velnor must run the operation once the lock is free";
}

TEST_F(HostLockTest, LockFileIsCreatedWithItsModesAndFreedAtTheEnd) {
    umask(077);  // the host sets the modes itself, whatever the umask of who runs it
    VelnorRun run = velnor({"idle"});
    umask(oldMask_);
    ASSERT_EQ(run.exitStatus, 0) << run.err;

    struct stat folder;
    struct stat file;
    ASSERT_EQ(stat(path("run").c_str(), &folder), 0) << "the lock folder was not created";
    ASSERT_EQ(stat(lockPath().c_str(), &file), 0) << "the lock file was not created";
    EXPECT_TRUE(S_ISDIR(folder.st_mode));
    EXPECT_EQ(folder.st_mode & 07777, 0755u);
    EXPECT_TRUE(S_ISREG(file.st_mode));
    EXPECT_EQ(file.st_mode & 07777, 0644u);

    int descriptor = lockExclusively(lockPath(), LOCK_NB);
    EXPECT_GE(descriptor, 0) << "the lock is still held after velnor ended";
    close(descriptor);
}

TEST_F(HostLockTest, ProcessStartedByThePluginDoesNotKeepTheLock) {
    VelnorRun run = velnor({"--json", "call", "spawnWithRequest"});
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    std::size_t at = run.out.find("\"pid\": ");
    ASSERT_NE(at, std::string::npos) << "the plug-in started nothing: " << run.out;
    pid_t sleeper = std::stoi(run.out.substr(at + 7));
    ASSERT_GT(sleeper, 0);
    std::unique_ptr<void, std::function<void(void*)>> killSleeper(
        &sleeper, [sleeper](void*) { kill(sleeper, SIGKILL); });
    ASSERT_EQ(kill(sleeper, 0), 0) << "the started process must still run for the check to mean "
                                      "anything";

    int descriptor = lockExclusively(lockPath(), LOCK_NB);
    EXPECT_GE(descriptor, 0) << "a process started under the host inherited its lock";
    close(descriptor);
}

TEST_F(HostLockTest, LockThatCannotBeCreatedStopsBeforeThePluginRuns) {
    EnvironmentChanges changes = environment();
    changes["VELNOR_LOCK_FILE"] = path("absent/deeper/host.lock");
    VelnorRun run = runVelnor(withTestPlugin({"call", "echoWithRequest"}), changes);
    EXPECT_EQ(run.exitStatus, 73) << run.err;
    EXPECT_NE(run.err.find(path("absent/deeper")), std::string::npos) << run.err;
    EXPECT_EQ(run.err.find("echoWithRequest called"), std::string::npos)
        << "the operation ran without the lock: " << run.err;
    EXPECT_EQ(run.out, "");
}

}  // namespace
}  // namespace velnor::testing
