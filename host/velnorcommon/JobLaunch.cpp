#include "JobLaunch.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/close_range.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Accounts.h"
#include "ProcessStat.h"
#include "UniqueFd.h"

namespace velnor {
namespace {

// What a daemon finds in PATH unless its job says otherwise.
constexpr const char* kDaemonPath = "/usr/bin:/bin:/usr/sbin:/sbin";
constexpr mode_t kOutputFileMode = 0644;
constexpr int kOutputFlags = O_WRONLY | O_APPEND | O_CREAT;

// ----- Working out the plan, in the host -----

using support::UserAccount;

// The groups that the user belongs to, with gid among them.
std::vector<gid_t> groupsOfUser(const std::string& user, gid_t gid) {
    std::vector<gid_t> groups(32);
    for (;;) {
        int count = static_cast<int>(groups.size());
        if (::getgrouplist(user.c_str(), gid, groups.data(), &count) >= 0) {
            groups.resize(static_cast<std::size_t>(count));
            return groups;
        }
        groups.resize(static_cast<std::size_t>(count) > groups.size()
                          ? static_cast<std::size_t>(count)
                          : groups.size() * 2);
    }
}

// The account that the job names, or nothing when it names none.
support::Result<std::optional<JobCredentials>> credentialsOf(const LaunchdJob& job,
                                                             std::optional<UserAccount>& user) {
    if (!job.userName && !job.groupName) {
        return std::optional<JobCredentials>();
    }
    JobCredentials credentials{::geteuid(), ::getegid(), {}};
    if (job.userName) {
        auto found = support::lookUpUser(*job.userName);
        if (!found) {
            return found.failure();
        }
        user = std::move(*found);
        credentials.uid = user->uid;
        credentials.gid = user->gid;
    }
    if (job.groupName) {
        auto gid = support::lookUpGroup(*job.groupName);
        if (!gid) {
            return gid.failure();
        }
        credentials.gid = *gid;
    }
    credentials.supplementaryGroups = job.userName ? groupsOfUser(*job.userName, credentials.gid)
                                                   : std::vector<gid_t>{credentials.gid};
    return std::optional<JobCredentials>(std::move(credentials));
}

class Environment {
  public:
    void set(const std::string& name, const std::string& value) {
        for (auto& entry : entries_) {
            if (entry.first == name) {
                entry.second = value;
                return;
            }
        }
        entries_.emplace_back(name, value);
    }

    std::string get(const std::string& name) const {
        for (const auto& entry : entries_) {
            if (entry.first == name) {
                return entry.second;
            }
        }
        return {};
    }

    std::vector<std::string> assignments() const {
        std::vector<std::string> texts;
        for (const auto& [name, value] : entries_) {
            texts.push_back(name + "=" + value);
        }
        return texts;
    }

  private:
    std::vector<std::pair<std::string, std::string>> entries_;
};

Environment environmentOf(const LaunchdJob& job, const std::optional<UserAccount>& user) {
    Environment environment;
    environment.set("PATH", kDaemonPath);
    if (user) {
        environment.set("HOME", user->home);
        environment.set("USER", *job.userName);
        environment.set("LOGNAME", *job.userName);
        environment.set("SHELL", user->shell);
    }
    for (const auto& [name, value] : job.environmentVariables) {
        environment.set(name, value);
    }
    return environment;
}

bool isExecutableFile(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           ::access(path.c_str(), X_OK) == 0;
}

// The program itself when its name holds a '/'; otherwise the first executable file of that
// name in the folders of searchPath.
support::Result<std::string> findProgram(const std::string& program,
                                         const std::string& searchPath) {
    if (program.find('/') != std::string::npos) {
        return program;
    }
    std::size_t start = 0;
    while (start <= searchPath.size()) {
        const std::size_t end = std::min(searchPath.find(':', start), searchPath.size());
        const std::string folder = searchPath.substr(start, end - start);
        if (!folder.empty() && isExecutableFile(folder + "/" + program)) {
            return folder + "/" + program;
        }
        start = end + 1;
    }
    return support::couldNot("find the program", program, "it is in no folder of " + searchPath,
                             ENOENT);
}

// ----- The new process, between fork and exec: system calls only -----

enum class Stage : std::int32_t {
    Fork = 1,
    Session,
    Groups,
    Group,
    User,
    WorkingDirectory,
    StandardInput,
    StandardOutput,
    StandardError,
    Identity,
    Execute,
};

enum class ReportKind : std::int32_t { SetUp = 1, Failed };

// What the new process tells the host over their socket: that it is set up and who it is, or
// at which stage it failed and why.
struct Report {
    ReportKind kind;
    Stage stage;
    std::int32_t error;
    pid_t pid;
    std::uint64_t startTime;
};

// The plan as plain pointers, made in the host before fork.
struct ChildPlan {
    const char* executable;
    char* const* argv;
    char* const* envp;
    const JobCredentials* credentials;
    const char* workingDirectory;
    const char* standardOutPath;
    const char* standardErrorPath;
    mode_t umask;
    int channel;
};

void sendReport(int channel, const Report& report) {
    const char* bytes = reinterpret_cast<const char*>(&report);
    std::size_t left = sizeof report;
    while (left > 0) {
        const ssize_t sent = ::write(channel, bytes, left);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            return;
        }
        bytes += sent;
        left -= static_cast<std::size_t>(sent);
    }
}

[[noreturn]] void failInChild(int channel, Stage stage, int error) {
    sendReport(channel, Report{ReportKind::Failed, stage, error, 0, 0});
    ::_exit(127);
}

// A daemon starts with default signal handling and nothing blocked, whatever the host set up.
void resetSignals() {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    for (int signal = 1; signal < NSIG; ++signal) {
        ::sigaction(signal, &action, nullptr);  // fails harmlessly for SIGKILL and SIGSTOP
    }
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

// As root the process takes the job's account whole; any other host can only run jobs as
// itself.
void switchAccount(int channel, const JobCredentials& credentials) {
    if (::geteuid() != 0) {
        if (credentials.uid != ::geteuid() || credentials.gid != ::getegid()) {
            failInChild(channel, Stage::User, EPERM);
        }
        return;
    }
    if (::setgroups(credentials.supplementaryGroups.size(),
                    credentials.supplementaryGroups.data()) != 0) {
        failInChild(channel, Stage::Groups, errno);
    }
    if (::setgid(credentials.gid) != 0) {
        failInChild(channel, Stage::Group, errno);
    }
    if (::setuid(credentials.uid) != 0) {
        failInChild(channel, Stage::User, errno);
    }
}

// Opens an output file of the job, in a child only. Without a wait: the account may have put a
// FIFO with no reader there, whose open would otherwise hold the start (and the host) for ever;
// it fails with ENXIO instead. The program then writes as it would to any file.
int openOutputFile(const char* path, int extraFlags) {
    const int fd = ::open(path, kOutputFlags | O_NOCTTY | O_NONBLOCK | extraFlags, kOutputFileMode);
    if (fd >= 0) {
        const int flags = ::fcntl(fd, F_GETFL);
        if (flags < 0 || ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
            const int error = errno;
            ::close(fd);
            errno = error;
            return -1;
        }
    }
    return fd;
}

// Puts the descriptor just opened (or the failure to open it) onto the standard one.
void placeOnto(int channel, Stage stage, int fd, int target) {
    if (fd < 0) {
        failInChild(channel, stage, errno);
    }
    if (fd != target) {
        if (::dup2(fd, target) < 0) {
            failInChild(channel, stage, errno);
        }
        ::close(fd);
    }
}

// Descriptors that the host left inheritable (its lock file, say) must not live on in a
// daemon; they close when the program is executed.
void closeHostDescriptorsOnExec() {
    if (::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) == 0) {
        return;
    }
    const long limit = ::sysconf(_SC_OPEN_MAX);
    for (int fd = 3; fd < (limit > 0 ? limit : 1024); ++fd) {
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
}

[[noreturn]] void runDaemon(const ChildPlan& plan) {
    const int channel = plan.channel;
    if (::setsid() < 0) {
        failInChild(channel, Stage::Session, errno);
    }
    resetSignals();
    ::umask(plan.umask);
    // The account comes first, so that the job's folder and files are reached with its own
    // rights, never with the host's.
    if (plan.credentials != nullptr) {
        switchAccount(channel, *plan.credentials);
    }
    if (::chdir(plan.workingDirectory) != 0) {
        failInChild(channel, Stage::WorkingDirectory, errno);
    }
    placeOnto(channel, Stage::StandardInput, ::open("/dev/null", O_RDONLY | O_NOCTTY),
              STDIN_FILENO);
    placeOnto(channel, Stage::StandardOutput, openOutputFile(plan.standardOutPath, 0),
              STDOUT_FILENO);
    placeOnto(channel, Stage::StandardError, openOutputFile(plan.standardErrorPath, 0),
              STDERR_FILENO);
    closeHostDescriptorsOnExec();

    auto stat = readProcessStat("/proc/self/stat");
    if (!stat) {
        failInChild(channel, Stage::Identity, errno != 0 ? errno : EIO);
    }
    sendReport(channel, Report{ReportKind::SetUp, Stage::Identity, 0, ::getpid(), stat->startTime});
    char goAhead = 0;
    ssize_t got = 0;
    do {
        got = ::read(channel, &goAhead, 1);
    } while (got < 0 && errno == EINTR);
    if (got != 1) {
        ::_exit(0);  // the host called the start off
    }
    ::execve(plan.executable, plan.argv, plan.envp);
    failInChild(channel, Stage::Execute, errno);
}

// Sends the opened file up with the report that says so.
void sendDescriptor(int channel, Stage stage, int fd) {
    Report report{ReportKind::SetUp, stage, 0, 0, 0};
    iovec part{&report, sizeof report};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof fd)] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof fd);
    std::memcpy(CMSG_DATA(header), &fd, sizeof fd);
    while (::sendmsg(channel, &message, 0) < 0 && errno == EINTR) {
    }
}

// What the child that opens a job's file is given, as plain pointers made before fork.
struct OpenPlan {
    const JobCredentials* credentials;
    const char* workingDirectory;
    const char* path;
    Stage stage;
    mode_t umask;
    int channel;
};

[[noreturn]] void openAsAccountInChild(const OpenPlan& plan) {
    ::umask(plan.umask);
    if (plan.credentials != nullptr) {
        switchAccount(plan.channel, *plan.credentials);
    }
    if (::chdir(plan.workingDirectory) != 0) {
        failInChild(plan.channel, Stage::WorkingDirectory, errno);
    }
    const int fd = openOutputFile(plan.path, O_CLOEXEC);
    if (fd < 0) {
        failInChild(plan.channel, plan.stage, errno);
    }
    sendDescriptor(plan.channel, plan.stage, fd);
    ::_exit(0);
}

// The first child only starts the daemon and ends, so that the daemon's parent is not the
// host and the host never holds it as a zombie.
[[noreturn]] void runIntermediate(const ChildPlan& plan, int hostEnd) {
    ::close(hostEnd);
    const pid_t daemon = ::fork();
    if (daemon < 0) {
        failInChild(plan.channel, Stage::Fork, errno);
    }
    if (daemon == 0) {
        runDaemon(plan);
    }
    ::_exit(0);
}

// ----- Back in the host -----

// Zero-terminated copies of strings, as execve takes them.
class CStringArray {
  public:
    explicit CStringArray(const std::vector<std::string>& strings) : strings_(strings) {
        for (auto& text : strings_) {
            pointers_.push_back(text.data());
        }
        pointers_.push_back(nullptr);
    }
    char* const* get() const { return pointers_.data(); }

  private:
    std::vector<std::string> strings_;
    std::vector<char*> pointers_;
};

enum class ReadResult { Report, End, Broken };

ReadResult readReport(int channel, Report& report) {
    char* bytes = reinterpret_cast<char*>(&report);
    std::size_t got = 0;
    while (got < sizeof report) {
        const ssize_t read = ::read(channel, bytes + got, sizeof report - got);
        if (read < 0 && errno == EINTR) {
            continue;
        }
        if (read <= 0) {
            return got == 0 && read == 0 ? ReadResult::End : ReadResult::Broken;
        }
        got += static_cast<std::size_t>(read);
    }
    return ReadResult::Report;
}

support::Failure stageFailure(const LaunchPlan& plan, Stage stage, int error) {
    switch (stage) {
        case Stage::Fork:
            return support::couldNot("fork for", plan.executable, error);
        case Stage::Session:
            return support::couldNot("start a session for", plan.executable, error);
        case Stage::Groups:
            return support::couldNot("set the supplementary groups for", plan.executable, error);
        case Stage::Group:
            return support::couldNot("switch to the group id",
                                     std::to_string(plan.credentials->gid), error);
        case Stage::User:
            return support::couldNot("switch to the user id", std::to_string(plan.credentials->uid),
                                     error);
        case Stage::WorkingDirectory:
            return support::couldNot("change to the working folder", plan.workingDirectory, error);
        case Stage::StandardInput:
            return support::couldNot("open for standard input", "/dev/null", error);
        case Stage::StandardOutput:
            return support::couldNot("open for standard output", plan.standardOutPath, error);
        case Stage::StandardError:
            return support::couldNot("open for standard error", plan.standardErrorPath, error);
        case Stage::Identity:
            return support::couldNot("read the start time of", "/proc/self/stat", error);
        case Stage::Execute:
            return support::couldNot("execute", plan.executable, error);
    }
    return support::couldNot("start", plan.executable, error);
}

LaunchOutcome failedBecause(std::string why) {
    LaunchOutcome outcome;
    outcome.failure = std::move(why);
    return outcome;
}

std::string failureOf(const LaunchPlan& plan, const Report& report) {
    return stageFailure(plan, report.stage, report.error).message;
}

// Follows the new process through its set-up to the program, answering its question
// whether to go ahead.
LaunchOutcome superviseStart(const LaunchPlan& plan, support::UniqueFd& channel,
                             const std::function<bool(const StartedProcess&)>& beforeProgram) {
    Report report{};
    switch (readReport(channel.get(), report)) {
        case ReadResult::Report:
            break;
        case ReadResult::End:
        case ReadResult::Broken:
            return failedBecause("the new process ended before it was set up");
    }
    if (report.kind == ReportKind::Failed) {
        return failedBecause(failureOf(plan, report));
    }
    LaunchOutcome outcome;
    outcome.process = StartedProcess{report.pid, report.startTime};
    if (!beforeProgram(*outcome.process)) {
        outcome.failure = "called off before the program ran";
        return outcome;  // closing the channel tells the process to end
    }
    const char goAhead = 1;
    if (::send(channel.get(), &goAhead, 1, MSG_NOSIGNAL) != 1) {
        outcome.failure = "the new process ended before it could run the program";
        return outcome;
    }
    switch (readReport(channel.get(), report)) {
        case ReadResult::End:  // the channel closed on exec
            outcome.executed = true;
            return outcome;
        case ReadResult::Report:
            outcome.failure = failureOf(plan, report);
            return outcome;
        case ReadResult::Broken:
            break;
    }
    outcome.failure = "lost track of the new process before it ran the program";
    return outcome;
}

// The descriptor moved above 0, 1 and 2 (which a host may have closed), so that the new
// process can put its standard files there without losing it.
int aboveStandardDescriptors(int fd) {
    if (fd > STDERR_FILENO) {
        return fd;
    }
    const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    ::close(fd);
    return moved;
}

void reap(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
}

// The file that the child opened, or why it could not.
support::Result<support::UniqueFd> receiveDescriptor(const LaunchPlan& plan, int channel,
                                                     Stage stage, const std::string& path) {
    Report report{};
    iovec part{&report, sizeof report};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    ssize_t got = 0;
    while ((got = ::recvmsg(channel, &message, MSG_CMSG_CLOEXEC)) < 0 && errno == EINTR) {
    }
    const cmsghdr* header = got == sizeof report ? CMSG_FIRSTHDR(&message) : nullptr;
    if (got == sizeof report && report.kind == ReportKind::Failed) {
        return stageFailure(plan, report.stage, report.error);
    }
    if (header == nullptr || header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) {
        return support::couldNot(
            stage == Stage::StandardOutput ? "open for standard output" : "open for standard error",
            path, "the process that opens it ended first", EIO);
    }
    int fd = -1;
    std::memcpy(&fd, CMSG_DATA(header), sizeof fd);
    return support::UniqueFd(fd);
}

}  // namespace

support::Result<LaunchPlan> planLaunch(const LaunchdJob& job) {
    std::optional<UserAccount> user;
    auto credentials = credentialsOf(job, user);
    if (!credentials) {
        return credentials.failure();
    }
    const Environment environment = environmentOf(job, user);
    auto executable =
        findProgram(job.program.value_or(job.programArguments.front()), environment.get("PATH"));
    if (!executable) {
        return executable.failure();
    }
    LaunchPlan plan;
    plan.credentials = std::move(*credentials);
    plan.executable = std::move(*executable);
    plan.arguments = job.programArguments;
    plan.environment = environment.assignments();
    plan.workingDirectory = job.workingDirectory.value_or("/");
    plan.standardOutPath = job.standardOutPath.value_or("/dev/null");
    plan.standardErrorPath = job.standardErrorPath.value_or("/dev/null");
    plan.umask = job.umask.value_or(kDaemonUmask);
    return plan;
}

support::Result<support::UniqueFd> openAsJobAccount(const LaunchPlan& plan, OutputFile which) {
    const bool output = which == OutputFile::StandardOutput;
    const std::string& path = output ? plan.standardOutPath : plan.standardErrorPath;
    const Stage stage = output ? Stage::StandardOutput : Stage::StandardError;
    // Datagrams keep the report and its descriptor together.
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        return support::couldNot("create a socket pair for", path, errno);
    }
    support::UniqueFd hostEnd(ends[0]);
    support::UniqueFd childEnd(ends[1]);
    const OpenPlan openPlan{plan.credentials ? &*plan.credentials : nullptr,
                            plan.workingDirectory.c_str(),
                            path.c_str(),
                            stage,
                            plan.umask,
                            childEnd.get()};
    const pid_t child = ::fork();
    if (child < 0) {
        return stageFailure(plan, Stage::Fork, errno);
    }
    if (child == 0) {
        openAsAccountInChild(openPlan);
    }
    childEnd.reset();
    auto opened = receiveDescriptor(plan, hostEnd.get(), stage, path);
    reap(child);
    return opened;
}

LaunchOutcome launchDetached(const LaunchPlan& plan,
                             const std::function<bool(const StartedProcess&)>& beforeProgram) {
    const CStringArray argv(plan.arguments);
    const CStringArray envp(plan.environment);
    // One socket pair carries the reports up and the go-ahead down; unlike a pipe, a socket
    // lets the host write to a process that has gone without being killed by SIGPIPE.
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return failedBecause(
            support::couldNot("create a socket pair for", plan.executable, errno).message);
    }
    support::UniqueFd hostEnd(aboveStandardDescriptors(ends[0]));
    support::UniqueFd childEnd(aboveStandardDescriptors(ends[1]));
    if (!hostEnd.valid() || !childEnd.valid()) {
        return failedBecause(
            support::couldNot("move a socket for", plan.executable, errno).message);
    }
    const ChildPlan childPlan{plan.executable.c_str(),
                              argv.get(),
                              envp.get(),
                              plan.credentials ? &*plan.credentials : nullptr,
                              plan.workingDirectory.c_str(),
                              plan.standardOutPath.c_str(),
                              plan.standardErrorPath.c_str(),
                              plan.umask,
                              childEnd.get()};
    const pid_t intermediate = ::fork();
    if (intermediate < 0) {
        return failedBecause(stageFailure(plan, Stage::Fork, errno).message);
    }
    if (intermediate == 0) {
        runIntermediate(childPlan, hostEnd.get());
    }
    childEnd.reset();
    LaunchOutcome outcome = superviseStart(plan, hostEnd, beforeProgram);
    hostEnd.reset();
    reap(intermediate);
    return outcome;
}

}  // namespace velnor
