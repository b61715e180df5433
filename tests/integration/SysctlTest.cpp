// The kernel queries on this machine, against real processes with known arguments.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Unprivileged.h"
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

// The non-empty zero-separated pieces of bytes, as a reader of the layout cuts them.
std::vector<std::string> nonEmptyPieces(const std::string& bytes) {
    std::vector<std::string> pieces;
    std::istringstream stream(bytes);
    for (std::string piece; std::getline(stream, piece, '\0');) {
        if (!piece.empty()) {
            pieces.push_back(piece);
        }
    }
    return pieces;
}

std::int32_t countOf(const std::string& bytes) {
    std::int32_t count = -1;
    if (bytes.size() >= sizeof count) {
        std::memcpy(&count, bytes.data(), sizeof count);
    }
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

class WaitingShell {
  public:
    WaitingShell() {
        int input[2], output[2];
        if (pipe2(input, O_CLOEXEC) != 0) {
            return;
        }
        if (pipe2(output, O_CLOEXEC) != 0) {
            close(input[0]);
            close(input[1]);
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
        if (posix_spawn(&pid_, "/bin/sh", &actions, nullptr, pointersTo(kShellArguments).data(),
                        pointersTo(kShellEnvironment).data()) != 0) {
            pid_ = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        close(input[0]);
        close(output[1]);
        input_ = input[1];
        // posix_spawn may return before the new program has laid out its arguments; its
        // first output comes after.
        char ready;
        if (pid_ > 0 && read(output[0], &ready, 1) != 1) {
            reap();
        }
        close(output[0]);
    }
    ~WaitingShell() { reap(); }
    WaitingShell(const WaitingShell&) = delete;
    WaitingShell& operator=(const WaitingShell&) = delete;

    pid_t pid() const { return pid_; }

    /** Lets the shell end and waits until it has, leaving it a zombie. */
    void endWithoutReaping() {
        close(std::exchange(input_, -1));
        siginfo_t info;
        waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
    }

    void reap() {
        if (input_ >= 0) {
            close(std::exchange(input_, -1));
        }
        if (pid_ > 0) {
            waitpid(pid_, nullptr, 0);
        }
    }

  private:
    pid_t pid_ = -1;
    int input_ = -1;
};

TEST(SysctlTest, ProcessArgumentsHoldCountPathPaddingArgumentsAndEnvironment) {
    WaitingShell shell;
    ASSERT_GT(shell.pid(), 0) << "could not start /bin/sh";
    const std::string executable = std::filesystem::canonical("/bin/sh").string();

    const Answer answer = processArguments(shell.pid());

    ASSERT_EQ(answer.error, 0) << std::strerror(answer.error);
    EXPECT_EQ(countOf(answer.bytes), 5) << "the empty argument must not be counted";
    const std::size_t pathEnd = sizeof(std::int32_t) + executable.size() + 1;
    const std::size_t firstArgument = (pathEnd + sizeof(void*) - 1) / sizeof(void*) * sizeof(void*);
    ASSERT_GE(answer.bytes.size(), firstArgument);
    EXPECT_EQ(answer.bytes.substr(sizeof(std::int32_t), pathEnd - sizeof(std::int32_t)),
              executable + '\0');
    EXPECT_EQ(answer.bytes.substr(pathEnd, firstArgument - pathEnd),
              std::string(firstArgument - pathEnd, '\0'))
        << "zero padding up to the next multiple of the pointer size";
    std::string strings;
    for (const std::string& text : kShellArguments) {
        strings += text + '\0';
    }
    for (const std::string& text : kShellEnvironment) {
        strings += text + '\0';
    }
    EXPECT_EQ(answer.bytes.substr(firstArgument), strings);
    const std::vector<std::string> expectedPieces = {"\5",
                                                     executable,
                                                     "sh",
                                                     "-c",
                                                     "echo; read line",
                                                     "velnor-probe",
                                                     "after-empty",
                                                     "VELNOR_PROBE=one",
                                                     "EMPTY=",
                                                     "LAST=two words"};
    EXPECT_EQ(nonEmptyPieces(answer.bytes), expectedPieces)
        << "a reader that skips empty pieces finds path and first argument at 1 and 2";
}

TEST(SysctlTest, SizeQueryGivesTheExactSizeAndASmallerBufferIsRefused) {
    WaitingShell shell;
    ASSERT_GT(shell.pid(), 0) << "could not start /bin/sh";
    const std::size_t delivered = processArguments(shell.pid()).bytes.size();
    ASSERT_GT(delivered, 0u);
    const int name[] = {kCtlKern, kKernProcargs2, shell.pid()};

    std::size_t needed = 0;
    ASSERT_EQ(sysctl(name, 3, nullptr, &needed, nullptr, 0), 0) << std::strerror(errno);
    EXPECT_EQ(needed, delivered);

    std::string buffer(delivered - 1, '#');
    std::size_t length = buffer.size();
    EXPECT_EQ(sysctl(name, 3, buffer.data(), &length, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(length, delivered - 1) << "the size place must be left alone on failure";
    EXPECT_EQ(buffer, std::string(delivered - 1, '#')) << "nothing may be delivered on failure";
}

// The start and end of this process's argument area, extended over the environment area when
// that follows at once: the space that a server process writes its title into. Both come
// from /proc/self/stat (fields 48 to 51), after the name in parentheses and the state letter.
std::pair<char*, char*> titleArea() {
    std::ifstream stat("/proc/self/stat");
    const std::string text((std::istreambuf_iterator<char>(stat)),
                           std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 1));
    std::string state;
    fields >> state;
    std::vector<unsigned long long> values(4);  // fields 0 to 3 are not numbers
    for (unsigned long long value; fields >> value;) {
        values.push_back(value);
    }
    if (values.size() <= 51) {
        return {nullptr, nullptr};
    }
    const unsigned long long end = values[50] == values[49] ? values[51] : values[49];
    return {reinterpret_cast<char*>(values[48]), reinterpret_cast<char*>(end)};
}

TEST(SysctlTest, ProcessThatRewroteItsTitleShowsTheTitleAsItsFirstArgument) {
    const std::string title = "postgres: _postgres postgres [local] idle";
    // A forked child has the area at the same addresses.
    const auto [start, end] = titleArea();
    ASSERT_NE(start, nullptr) << "no argument area in /proc/self/stat";
    ASSERT_GT(end - start, static_cast<long>(title.size())) << "argument area too small";
    int ready[2], release[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(release), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Rewrite the title in place and zero the rest, as the server's processes do.
        std::memset(start, 0, static_cast<std::size_t>(end - start));
        std::memcpy(start, title.data(), title.size());
        char byte = 'R';
        close(release[1]);
        if (write(ready[1], &byte, 1) == 1) {
            while (read(release[0], &byte, 1) > 0) {
            }
        }
        _exit(0);
    }
    close(ready[1]);
    close(release[0]);
    char byte = 0;
    const bool retitled = read(ready[0], &byte, 1) == 1;
    const Answer answer = processArguments(child);
    close(release[1]);
    close(ready[0]);
    waitpid(child, nullptr, 0);

    ASSERT_TRUE(retitled) << "the child did not get to rewrite its title";
    ASSERT_EQ(answer.error, 0) << std::strerror(answer.error);
    EXPECT_EQ(countOf(answer.bytes), 1);
    const std::vector<std::string> pieces = nonEmptyPieces(answer.bytes);
    ASSERT_GE(pieces.size(), 3u);
    EXPECT_EQ(pieces[1], std::filesystem::canonical("/proc/self/exe").string());
    EXPECT_EQ(pieces[2], title);
}

TEST(SysctlTest, ArgumentMaximumIsTheSystemsLimitInFourBytes) {
    const int name[] = {kCtlKern, kKernArgmax};
    std::int32_t maximum = 0;
    std::size_t length = sizeof maximum + 4;

    ASSERT_EQ(sysctl(name, 2, &maximum, &length, nullptr, 0), 0) << std::strerror(errno);
    EXPECT_EQ(maximum, sysconf(_SC_ARG_MAX));
    EXPECT_EQ(length, 4u);

    std::size_t tooShort = 3;
    EXPECT_EQ(sysctl(name, 2, &maximum, &tooShort, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOMEM);
}

TEST(SysctlTest, ProcessThatHasEndedCountsAsNoProcess) {
    WaitingShell shell;
    ASSERT_GT(shell.pid(), 0) << "could not start /bin/sh";

    shell.endWithoutReaping();
    EXPECT_EQ(processArguments(shell.pid()).error, ESRCH) << "a zombie has no arguments";
    shell.reap();
    EXPECT_EQ(processArguments(shell.pid()).error, ESRCH) << "a reaped process";
    EXPECT_EQ(processArguments(0).error, ESRCH);
    EXPECT_EQ(processArguments(-1).error, ESRCH);
}

TEST(SysctlTest, AnotherAccountsProcessMayNotBeRead) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "reading as another account needs root to change accounts";
    }
    const pid_t rootProcess = getpid();

    const std::string outcome = integration::runAsNobody([rootProcess] {
        return std::to_string(processArguments(getpid()).error) + " " +
               std::to_string(processArguments(rootProcess).error);
    });

    EXPECT_EQ(outcome, "0 " + std::to_string(EPERM)) << "own arguments readable, root's not";
}

TEST(SysctlTest, MalformedQueriesAreRefusedWithTheirErrors) {
    int value = 0;
    std::size_t length = sizeof value;
    const int maximum[] = {kCtlKern, kKernArgmax, 0};
    const int arguments[] = {kCtlKern, kKernProcargs2, getpid()};
    const int unknownKern[] = {kCtlKern, 99};
    const int unknownTop[] = {2, kKernArgmax};
    const auto errorOf = [&](const int* name, unsigned int size, std::size_t* place,
                             const void* newValue) {
        errno = 0;
        return sysctl(name, size, &value, place, newValue, 0) == -1 ? errno : 0;
    };

    EXPECT_EQ(errorOf(nullptr, 2, &length, nullptr), EINVAL) << "no name";
    EXPECT_EQ(errorOf(maximum, 1, &length, nullptr), EINVAL) << "name of one element";
    EXPECT_EQ(errorOf(maximum, 3, &length, nullptr), EINVAL) << "argument maximum with a pid";
    EXPECT_EQ(errorOf(arguments, 2, &length, nullptr), EINVAL) << "process without a pid";
    EXPECT_EQ(errorOf(maximum, 2, nullptr, nullptr), EINVAL) << "no size place";
    EXPECT_EQ(errorOf(unknownKern, 2, &length, nullptr), ENOTSUP) << "unknown kernel value";
    EXPECT_EQ(errorOf(unknownTop, 2, &length, nullptr), ENOTSUP) << "unknown top level";
    EXPECT_EQ(errorOf(maximum, 2, &length, &value), EPERM) << "a new argument maximum";
    EXPECT_EQ(errorOf(arguments, 3, &length, &value), EPERM) << "new process arguments";
}

}  // namespace
}  // namespace velnor::platform
