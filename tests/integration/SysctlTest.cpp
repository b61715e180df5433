// The kernel queries on this machine, against real processes with known arguments.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "platform/Kernel.h"

namespace velnor::platform {
namespace {

// The outcome of one process-arguments query: the bytes, or the error number.
struct Answer {
    int error = 0;
    std::string bytes;
};

Answer processArguments(pid_t pid) {
    const int name[] = {kCtlKern, kKernProcargs2, pid};
    std::string buffer(1 << 20, '\0');
    std::size_t length = buffer.size();
    if (sysctl(name, 3, buffer.data(), &length, nullptr, 0) == -1) {
        return {errno, {}};
    }
    buffer.resize(length);
    return {0, buffer};
}

std::int32_t countOf(const std::string& bytes) {
    std::int32_t count = -1;
    std::memcpy(&count, bytes.data(), std::min(bytes.size(), sizeof count));
    return count;
}

std::vector<char*> pointersTo(const std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    for (const std::string& text : strings) {
        pointers.push_back(const_cast<char*>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

// /bin/sh started with exactly these arguments and environment. It says that it is ready by a
// line on its standard output, and runs until its standard input is closed.
const std::vector<std::string> kShellArguments = {"sh",           "-c", "echo; read line",
                                                  "velnor-probe", "",   "after-empty"};
const std::vector<std::string> kShellEnvironment = {"VELNOR_PROBE=one", "EMPTY=", "LAST=two words"};

struct WaitingShell {
    pid_t pid = -1;
    int input = -1;

    WaitingShell() {
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        if (posix_spawn(&pid, "/bin/sh", &actions, nullptr, pointersTo(kShellArguments).data(),
                        pointersTo(kShellEnvironment).data()) != 0) {
            pid = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        close(in[0]);
        close(out[1]);
        input = in[1];
        // posix_spawn may return before the new program has laid out its arguments; its first
        // output comes after.
        char ready;
        if (pid > 0 && read(out[0], &ready, 1) != 1) {
            reap();
        }
        close(out[0]);
    }
    ~WaitingShell() { reap(); }
    WaitingShell(const WaitingShell&) = delete;
    WaitingShell& operator=(const WaitingShell&) = delete;

    void reap() {
        if (input >= 0) {
            close(std::exchange(input, -1));
        }
        if (pid > 0) {
            waitpid(pid, nullptr, 0);
        }
    }
};

TEST(SysctlTest, ProcessArgumentsAreExactlyCountPathPaddingArgumentsAndEnvironmentIfTheyFit) {
    WaitingShell shell;
    ASSERT_GT(shell.pid, 0) << "could not start /bin/sh";
    const std::string executable = std::filesystem::canonical("/bin/sh").string();

    const Answer answer = processArguments(shell.pid);

    ASSERT_EQ(answer.error, 0) << std::strerror(answer.error);
    EXPECT_EQ(countOf(answer.bytes), 5) << "the empty argument must not be counted";
    // Count, path, zero padding up to the next multiple of the pointer size, then every
    // argument and environment string with its terminating zero.
    const std::int32_t count = 5;
    std::string expected(reinterpret_cast<const char*>(&count), sizeof count);
    expected += executable + '\0';
    expected.resize((expected.size() + sizeof(void*) - 1) / sizeof(void*) * sizeof(void*), '\0');
    for (const auto* strings : {&kShellArguments, &kShellEnvironment}) {
        for (const std::string& text : *strings) {
            expected += text + '\0';
        }
    }
    ASSERT_EQ(answer.bytes, expected);

    const int name[] = {kCtlKern, kKernProcargs2, shell.pid};
    std::size_t needed = 0;
    ASSERT_EQ(sysctl(name, 3, nullptr, &needed, nullptr, 0), 0) << std::strerror(errno);
    EXPECT_EQ(needed, expected.size()) << "a size query gives the exact size";
    std::string buffer(expected.size() - 1, '#');
    std::size_t length = buffer.size();
    EXPECT_EQ(sysctl(name, 3, buffer.data(), &length, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(length, expected.size() - 1) << "the size place must be left alone on failure";
    EXPECT_EQ(buffer, std::string(expected.size() - 1, '#')) << "nothing delivered on failure";
}

TEST(SysctlTest, ProcessThatHasEndedCountsAsNoProcess) {
    WaitingShell shell;
    ASSERT_GT(shell.pid, 0) << "could not start /bin/sh";

    close(std::exchange(shell.input, -1));
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(shell.pid), &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(processArguments(shell.pid).error, ESRCH) << "a zombie has no arguments";
    shell.reap();
    EXPECT_EQ(processArguments(shell.pid).error, ESRCH) << "a reaped process";
    EXPECT_EQ(processArguments(0).error, ESRCH);
    EXPECT_EQ(processArguments(-1).error, ESRCH);
}

}  // namespace
}  // namespace velnor::platform
