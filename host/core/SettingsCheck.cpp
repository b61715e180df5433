#include "SettingsCheck.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <optional>

#include "Accounts.h"
#include "Deadline.h"
#include "LaunchDaemon.h"
#include "PlistValue.h"
#include "PropertyListFile.h"
#include "SafePath.h"

namespace velnor::host {
namespace {

using support::couldNot;
using support::Failure;
using support::Result;

// More than any message of the server's; the rest is dropped.
constexpr std::size_t kMostOutput = 64 * 1024;

struct ProgramRun {
    int status = 0;  // the exit status, or 128 + the signal that ended it
    std::string output;
};

struct Account {
    uid_t uid;
    gid_t gid;
};

bool isSettingName(const std::string& name) {
    if (name.empty() || name.size() > 200 ||
        !(std::isalpha(static_cast<unsigned char>(name[0])) || name[0] == '_')) {
        return false;
    }
    return std::all_of(name.begin(), name.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.';
    });
}

// Where the severity of a server's message line begins ("FATAL:  ", "DETAIL:  ", ...), after
// the log line prefix; npos when the line has none.
std::size_t severityIn(std::string_view line) {
    constexpr std::string_view kSeverities[] = {
        "FATAL:  ", "ERROR:  ", "PANIC:  ", "DETAIL:  ", "HINT:  ", "WARNING:  "};
    std::size_t from = std::string_view::npos;
    for (std::string_view severity : kSeverities) {
        from = std::min(from, line.find(severity));
    }
    return from;
}

// The server's words without its log line prefix: what it printed when it complained of
// nothing (the value it reads), else from its first complaint on, each line from its severity.
std::string serverWords(const std::string& text) {
    std::string words;
    bool complained = false;
    for (std::size_t lineStart = 0; lineStart < text.size();) {
        std::size_t lineEnd = text.find('\n', lineStart);
        lineEnd = lineEnd == std::string::npos ? text.size() : lineEnd + 1;
        std::string_view line(text.data() + lineStart, lineEnd - lineStart);
        lineStart = lineEnd;
        const std::size_t severity = severityIn(line);
        if (severity != std::string_view::npos) {
            // What came before the first complaint is not part of it.
            if (!complained) {
                words.clear();
                complained = true;
            }
            words += line.substr(severity);
        } else {
            words += line;
        }
    }
    return words;
}

std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

// In the child, between fork and exec: only calls that are safe there.
[[noreturn]] void becomeProgram(const std::vector<char*>& argv, const Account& account, int input,
                                int output) {
    static char path[] = "PATH=/usr/bin:/bin";
    static char locale[] = "LC_ALL=C";
    char* environment[] = {path, locale, nullptr};
    if (dup2(input, STDIN_FILENO) < 0 || dup2(output, STDOUT_FILENO) < 0 ||
        dup2(output, STDERR_FILENO) < 0 || syscall(SYS_close_range, 3U, ~0U, 0U) != 0 ||
        setgroups(1, &account.gid) != 0 || setgid(account.gid) != 0 || setuid(account.uid) != 0 ||
        chdir("/") != 0) {
        _exit(126);
    }
    execve(argv[0], argv.data(), environment);
    _exit(127);
}

// Reads the child's output until it closes it or the deadline passes; false on the deadline.
bool collectOutput(int output, const support::Deadline& deadline, std::string& collected) {
    char buffer[4096];
    for (;;) {
        const int left = deadline.pollMilliseconds();
        if (left == 0) {
            return false;
        }
        pollfd watched{output, POLLIN, 0};
        int ready = poll(&watched, 1, left);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return false;
        }
        ssize_t count = read(output, buffer, sizeof(buffer));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return true;
        }
        if (collected.size() < kMostOutput) {
            collected.append(buffer, static_cast<std::size_t>(count));
        }
    }
}

Result<ProgramRun> runAsAccount(const std::vector<std::string>& arguments, const Account& account,
                                std::chrono::milliseconds limit) {
    const std::string& program = arguments.front();
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    support::UniqueFd input(open("/dev/null", O_RDONLY | O_CLOEXEC));
    int ends[2];
    if (!input.valid() || pipe2(ends, O_CLOEXEC) != 0) {
        return couldNot("run", program, errno);
    }
    support::UniqueFd readEnd(ends[0]);
    support::UniqueFd writeEnd(ends[1]);
    pid_t child = fork();
    if (child < 0) {
        return couldNot("run", program, errno);
    }
    if (child == 0) {
        becomeProgram(argv, account, input.get(), writeEnd.get());
    }
    writeEnd.reset();
    ProgramRun run;
    bool finished = collectOutput(readEnd.get(), support::Deadline(limit), run.output);
    if (!finished) {
        kill(child, SIGKILL);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!finished) {
        return couldNot("run", program,
                        "it did not finish within " + std::to_string(limit.count()) + " ms",
                        ETIMEDOUT);
    }
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (run.status == 126 || run.status == 127) {
        return couldNot("run", program, "it could not be executed as the service account");
    }
    return run;
}

// The value after -D in the launch arguments, or nothing.
std::optional<std::string> dataFolderOf(const LaunchArguments& arguments) {
    for (std::size_t index = 1; index + 1 < arguments.size(); ++index) {
        if (arguments[index] == "-D") {
            return arguments[index + 1];
        }
    }
    return std::nullopt;
}

}  // namespace

Result<ServerProgram> serverProgramOfJob(const std::string& jobFile) {
    std::string untrusted;
    Result<support::UniqueFd> opened = support::openSafely(jobFile, &untrusted);
    if (!opened) {
        return opened.failure();
    }
    if (!untrusted.empty()) {
        return couldNot("use", jobFile, untrusted, EPERM);
    }
    Result<PlistDictionary> job = readPropertyListDictionary(jobFile);
    if (!job) {
        return job.failure();
    }
    std::optional<LaunchArguments> arguments = GetLaunchDaemonServiceConfigArgs(jobFile);
    const PlistValue* account = job->find("UserName");
    std::optional<std::string> dataFolder =
        arguments ? dataFolderOf(*arguments) : std::optional<std::string>();
    if (!arguments || arguments->empty() || !dataFolder || account == nullptr ||
        account->asString() == nullptr) {
        return couldNot("use", jobFile, "it names no program, no -D data folder or no UserName",
                        EINVAL);
    }
    return ServerProgram{arguments->front(), *dataFolder, *account->asString()};
}

Result<std::pair<std::string, std::string>> splitSetting(const std::string& argument) {
    // Values may hold "=" themselves (search_path="$user",public), names never do.
    std::size_t equals = argument.find('=');
    if (equals == std::string::npos || equals == 0) {
        return Failure{EINVAL, "\"" + argument + "\" is not NAME=VALUE"};
    }
    return std::pair{argument.substr(0, equals), argument.substr(equals + 1)};
}

Result<SettingVerdict> checkSetting(const ServerProgram& server, const std::string& name,
                                    const std::string& value, std::chrono::milliseconds limit) {
    if (!isSettingName(name)) {
        return Failure{EINVAL, "\"" + name + "\" is not a setting name"};
    }
    if (value.find('\0') != std::string::npos || value.find('\n') != std::string::npos) {
        return Failure{EINVAL, "the value of \"" + name + "\" holds a line feed or zero byte"};
    }
    Result<support::UserAccount> account = support::lookUpUser(server.account);
    if (!account) {
        return account.failure();
    }
    Result<ProgramRun> run = runAsAccount(
        {server.program, "-D", server.dataFolder, "-C", name, "-c", name + "=" + value},
        Account{account->uid, account->gid}, limit);
    if (!run) {
        return run.failure();
    }
    return SettingVerdict{name, value, run->status == 0, trimmed(serverWords(run->output))};
}

Result<std::vector<SettingVerdict>> checkSettings(
    const ServerProgram& server, const std::vector<std::pair<std::string, std::string>>& settings) {
    std::vector<SettingVerdict> verdicts;
    for (const auto& [name, value] : settings) {
        Result<SettingVerdict> verdict = checkSetting(server, name, value);
        if (!verdict) {
            return verdict.failure();
        }
        verdicts.push_back(std::move(*verdict));
    }
    return verdicts;
}

}  // namespace velnor::host
