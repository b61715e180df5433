// The process-arguments query on this machine, against a shell started with known arguments.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <string>

#include "platform/Kernel.h"

namespace velnor::platform {
namespace {

const char* const kArguments[] = {"sh", "-c",          "read line", "velnor-probe",
                                  "",   "after-empty", nullptr};
const char* const kEnvironment[] = {"VELNOR_PROBE=one", "EMPTY=", "LAST=two words", nullptr};

// /bin/sh with exactly those arguments and environment, waiting for a line on standard input
// (input keeps that pipe open); returns once the shell runs, which closes the exec pipe.
pid_t startShell(int* input) {
    int in[2], exec[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(exec, O_CLOEXEC) != 0) {
        return -1;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(in[0], STDIN_FILENO);
        execve("/bin/sh", const_cast<char* const*>(kArguments),
               const_cast<char* const*>(kEnvironment));
        _exit(127);
    }
    char ignored;
    close(exec[1]);
    while (read(exec[0], &ignored, 1) < 0 && errno == EINTR) {
    }
    close(exec[0]);
    close(in[0]);
    *input = in[1];
    return pid;
}

// The query into a buffer of capacity bytes, all '#' before; its result and errno.
std::pair<int, int> query(pid_t pid, std::string* buffer, std::size_t* length) {
    const int name[] = {kCtlKern, kKernProcargs2, pid};
    errno = 0;
    const int result =
        sysctl(name, 3, buffer->empty() ? nullptr : buffer->data(), length, nullptr, 0);
    return {result, errno};
}

TEST(SysctlTest, ArgumentsAreCountPathPaddingArgumentsAndEnvironmentOnlyWhileTheProcessRuns) {
    int input = -1;
    const pid_t shell = startShell(&input);
    ASSERT_GT(shell, 0) << "could not start /bin/sh";
    // Count (the empty argument not counted), path, zero padding up to the next multiple of the
    // pointer size, then every argument and environment string with its terminating zero.
    const std::int32_t count = 5;
    std::string expected(reinterpret_cast<const char*>(&count), sizeof count);
    expected += std::filesystem::canonical("/bin/sh").string() + '\0';
    expected.resize((expected.size() + sizeof(void*) - 1) / sizeof(void*) * sizeof(void*), '\0');
    for (const char* const* strings : {kArguments, kEnvironment}) {
        for (; *strings != nullptr; ++strings) {
            expected += std::string(*strings) + '\0';
        }
    }

    std::string none;
    std::size_t needed = 0;
    EXPECT_EQ(query(shell, &none, &needed), std::make_pair(0, 0));
    EXPECT_EQ(needed, expected.size()) << "a size query gives the exact size";
    std::string whole(needed + 100, '#'), short_(needed - 1, '#');
    std::size_t length = whole.size(), shortLength = short_.size();
    EXPECT_EQ(query(shell, &whole, &length), std::make_pair(0, 0));
    EXPECT_EQ(whole.substr(0, length), expected);
    EXPECT_EQ(query(shell, &short_, &shortLength), std::make_pair(-1, ENOMEM));
    EXPECT_EQ(shortLength, needed - 1) << "the size place must be left alone on failure";
    EXPECT_EQ(short_, std::string(needed - 1, '#')) << "nothing delivered on failure";

    close(input);
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(shell), &info, WEXITED | WNOWAIT), 0);
    for (pid_t gone : {shell, 0, -1}) {  // a zombie, and pids that no process has
        length = whole.size();
        EXPECT_EQ(query(gone, &whole, &length), std::make_pair(-1, ESRCH)) << gone;
    }
    waitpid(shell, nullptr, 0);
    length = whole.size();
    EXPECT_EQ(query(shell, &whole, &length), std::make_pair(-1, ESRCH)) << "a reaped process";
}

}  // namespace
}  // namespace velnor::platform
