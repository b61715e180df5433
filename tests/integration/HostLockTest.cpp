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

#include "VelnorProcess.h"

namespace velnor::testing {
namespace {

// An exclusive flock, as another host holds it; -1 when it could not be had.
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
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline && !process.hasEnded()) {
        if (waitsForFlock(process.pid(), inode)) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
}

using HostLockTest = HostFixture;

TEST_F(HostLockTest, OperationWaitsWhileAnotherHoldsTheLock) {
    ASSERT_EQ(mkdir(path("run").c_str(), 0755), 0);
    int held = lockExclusively(lockPath());
    ASSERT_GE(held, 0) << "cannot take the lock for the test";
    struct stat lockFile;
    ASSERT_EQ(stat(lockPath().c_str(), &lockFile), 0);

    VelnorProcess process({"--json", "call", "echoWithRequest"}, environment());
    EXPECT_TRUE(becomesBlockedOnLock(process, lockFile.st_ino)) << "velnor never waited";
    EXPECT_FALSE(process.hasWrittenOutput()) << "velnor answered while the lock was held";
    EXPECT_FALSE(process.hasEnded()) << "velnor ended while the lock was held";

    close(held);
    VelnorRun run = process.finish();
    EXPECT_EQ(run.exitStatus, 0) << run.err;
    EXPECT_EQ(run.out, "{}\n") << "velnor must run the operation once the lock is free";
}

TEST_F(HostLockTest, LockHasItsModesWhateverTheUmaskAndNoProcessStartedUnderItKeepsIt) {
    mode_t oldMask = umask(077);  // the host sets the modes itself, whatever the caller's umask
    VelnorRun run = velnor({"--json", "call", "spawnWithRequest"});
    umask(oldMask);
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    std::size_t at = run.out.find("\"pid\": ");
    ASSERT_NE(at, std::string::npos) << "the plug-in started nothing: " << run.out;
    pid_t sleeper = std::stoi(run.out.substr(at + 7));
    ASSERT_GT(sleeper, 0);
    struct KillOnExit {
        pid_t pid;
        ~KillOnExit() { kill(pid, SIGKILL); }
    } killSleeper{sleeper};
    ASSERT_EQ(kill(sleeper, 0), 0) << "the started process must still run for the check to count";

    struct stat folder;
    struct stat file;
    ASSERT_EQ(stat(path("run").c_str(), &folder), 0) << "the lock folder was not created";
    ASSERT_EQ(stat(lockPath().c_str(), &file), 0) << "the lock file was not created";
    EXPECT_TRUE(S_ISDIR(folder.st_mode));
    EXPECT_EQ(folder.st_mode & 07777, 0755u);
    EXPECT_TRUE(S_ISREG(file.st_mode));
    EXPECT_EQ(file.st_mode & 07777, 0600u);
    EXPECT_EQ(file.st_uid, 0u);

    int descriptor = lockExclusively(lockPath(), LOCK_NB);
    EXPECT_GE(descriptor, 0) << "the lock outlived velnor, held by the process it started";
    close(descriptor);
}

}  // namespace
}  // namespace velnor::testing
