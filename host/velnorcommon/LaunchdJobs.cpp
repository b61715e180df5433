#include "LaunchdJobs.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
// This glibc's header forgets C linkage.
extern "C" {
#include <sys/pidfd.h>
}

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstdint>
#include <ctime>
#include <limits>
#include <memory>
#include <string_view>

#include "Deadline.h"
#include "HostLog.h"
#include "JobMoves.h"
#include "LaunchdJob.h"
#include "PathNames.h"
#include "ProcessStat.h"
#include "Result.h"
#include "SafePath.h"
#include "UniqueFd.h"
#include "WholeFile.h"

namespace velnor {
namespace {

constexpr const char* kProcRoot = "/proc";
constexpr mode_t kRecordFolderMode = 0755;
constexpr mode_t kRecordFileMode = 0644;

bool isSameRunningProcess(const StartedProcess& process) {
    auto stat = readProcessStat(kProcRoot, process.pid);
    return stat && stat->running() && stat->startTime == process.startTime;
}

// The boot clock, which a stop's mark keeps its kill time on: it goes on through a suspend, so
// that a stop that was due while the machine slept kills at once when it wakes.
std::int64_t bootClockMilliseconds() {
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Waits up to milliseconds for the process to end; true once it has.
bool awaitProcessEnd(const StartedProcess& process, std::int64_t milliseconds) {
    // A pid descriptor becomes readable when its process ends, whoever its parent is.
    support::UniqueFd pinned(::pidfd_open(process.pid, 0));
    if (!pinned.valid() || !isSameRunningProcess(process)) {
        return !isSameRunningProcess(process);
    }
    const support::Deadline deadline{std::chrono::milliseconds(milliseconds)};
    pollfd ending{pinned.get(), POLLIN, 0};
    for (int left = deadline.pollMilliseconds(); left > 0; left = deadline.pollMilliseconds()) {
        const int ready = ::poll(&ending, 1, left);
        if (ready > 0 || (ready < 0 && errno != EINTR)) {
            break;
        }
    }
    return !isSameRunningProcess(process);
}

// Sends signal to the process and, with wholeGroup, to every process of the group it leads. A
// pid descriptor pins the process, and checking the start time again through it leaves no moment
// in which the pid could pass to another process before the signal; while its leader is pinned
// and runs, the group's id cannot pass to another group either.
support::Status signalJob(const StartedProcess& process, int signal, bool wholeGroup) {
    const std::string target = "process " + std::to_string(process.pid);
    support::UniqueFd pinned(::pidfd_open(process.pid, 0));
    if (!pinned.valid()) {
        if (errno == ESRCH) {
            return {};
        }
        return support::couldNot("open", target, errno);
    }
    if (!isSameRunningProcess(process)) {
        return {};
    }
    const char* name = signal == SIGKILL ? "send SIGKILL to" : "send SIGTERM to";
    if (wholeGroup && ::getpgid(process.pid) == process.pid) {
        if (::killpg(process.pid, signal) != 0 && errno != ESRCH) {
            return support::couldNot(name, "the process group of " + target, errno);
        }
        return {};
    }
    if (::pidfd_send_signal(pinned.get(), signal, nullptr, 0) != 0 && errno != ESRCH) {
        return support::couldNot(name, target, errno);
    }
    return {};
}

// The two or three numbers of a line "N N[ N]\n"; nothing when the text is not one.
std::optional<std::vector<std::uint64_t>> numbersOfLine(std::string_view text) {
    if (text.empty() || text.back() != '\n') {
        return std::nullopt;
    }
    text.remove_suffix(1);
    std::vector<std::uint64_t> numbers;
    for (;;) {
        std::uint64_t number = 0;
        auto [past, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (failure != std::errc() || past == text.data()) {
            return std::nullopt;
        }
        numbers.push_back(number);
        text.remove_prefix(static_cast<std::size_t>(past - text.data()));
        if (text.empty()) {
            return numbers.size() >= 2 ? std::optional(numbers) : std::nullopt;
        }
        if (text.front() != ' ' || numbers.size() == 3) {
            return std::nullopt;
        }
        text.remove_prefix(1);
    }
}

std::optional<StartedProcess> processOfNumbers(const std::vector<std::uint64_t>& numbers) {
    if (numbers[0] == 0 || numbers[0] > static_cast<std::uint64_t>(INT_MAX)) {
        return std::nullopt;
    }
    return StartedProcess{static_cast<pid_t>(numbers[0]), numbers[1]};
}

struct JobFile {
    std::string path;
    support::UniqueFd descriptor;  // the file as it was checked, O_PATH
    // Why it must not be run, when it must not: the file or a folder above it is not root's
    // alone, or a link on the way was not safe to follow.
    std::string refusal;
};

// The first job file of label in folders; nothing when no folder holds one.
std::optional<JobFile> findJobFile(const std::vector<std::string>& folders,
                                   const std::string& label) {
    for (const auto& folder : folders) {
        JobFile jobFile{support::joinedPath(folder, label + ".plist"), {}, {}};
        auto opened = support::openSafely(jobFile.path, &jobFile.refusal);
        if (opened) {
            jobFile.descriptor = std::move(*opened);
            return jobFile;
        }
        if (opened.error() != ENOENT && opened.error() != ENOTDIR) {
            jobFile.refusal = opened.message();
            return jobFile;
        }
    }
    return std::nullopt;
}

}  // namespace

bool isUsableLabel(const std::string& label) {
    return !label.empty() && label != "." && label != ".." &&
           label.find('/') == std::string::npos && label.find('\0') == std::string::npos;
}

std::vector<std::string> jobFoldersOfThisMachine() {
    return {"/System/Library/LaunchDaemons", "/Library/LaunchDaemons"};
}

bool hasJobFile(const std::vector<std::string>& jobFolders, const std::string& label) {
    return findJobFile(jobFolders, label).has_value();
}

support::Result<LaunchdJob> readJobOfLabel(const std::vector<std::string>& jobFolders,
                                           const std::string& label) {
    auto jobFile = findJobFile(jobFolders, label);
    if (!jobFile) {
        return support::Failure{ENOENT, "there is no job file " + label + ".plist"};
    }
    // launchd runs nothing from a file that another account could have written or replaced.
    if (!jobFile->refusal.empty()) {
        return support::Failure{EPERM, jobFile->refusal};
    }
    // Read through the descriptor that was checked: the path may lead elsewhere by now.
    auto readable =
        support::reopen(jobFile->descriptor.get(), O_RDONLY | O_NONBLOCK | O_NOCTTY, jobFile->path);
    if (!readable) {
        return readable.failure();
    }
    return readLaunchdJob(readable->get(), jobFile->path);
}

std::string formatJobRecord(const JobRecord& record) {
    return std::to_string(record.process.pid) + " " + std::to_string(record.process.startTime) +
           " " + std::to_string(record.exitTimeOutSeconds) + "\n";
}

std::optional<JobRecord> parseJobRecord(const std::string& text) {
    const auto numbers = numbersOfLine(text);
    const auto process = numbers ? processOfNumbers(*numbers) : std::nullopt;
    if (!process) {
        return std::nullopt;
    }
    if (numbers->size() == 2) {
        return JobRecord{*process, kDefaultExitTimeOutSeconds};
    }
    const std::uint64_t exitTimeOut = (*numbers)[2];
    if (exitTimeOut == 0 || exitTimeOut > static_cast<std::uint64_t>(INT_MAX)) {
        return std::nullopt;
    }
    return JobRecord{*process, static_cast<int>(exitTimeOut)};
}

std::string formatStopMark(const StopMark& mark) {
    return std::to_string(mark.process.pid) + " " + std::to_string(mark.process.startTime) + " " +
           std::to_string(mark.killAtMilliseconds) + "\n";
}

std::optional<StopMark> parseStopMark(const std::string& text) {
    const auto numbers = numbersOfLine(text);
    const auto process = numbers ? processOfNumbers(*numbers) : std::nullopt;
    if (!process || numbers->size() != 3 ||
        (*numbers)[2] > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        return std::nullopt;
    }
    return StopMark{*process, static_cast<std::int64_t>((*numbers)[2])};
}

LaunchdJobs::LaunchdJobs(Folders folders, FailureLog log)
    : folders_(std::move(folders)), log_(std::move(log)) {}

LaunchdJobs LaunchdJobs::onThisMachine() {
    return LaunchdJobs({jobFoldersOfThisMachine(), "/var/run/velnor/launchd"}, &logHostFailure);
}

std::string LaunchdJobs::recordPath(const std::string& label) const {
    return folders_.recordFolder + "/" + label;
}

std::string LaunchdJobs::stopMarkPath(const std::string& label) const {
    return recordPath(label) + ".stopping";
}

std::optional<JobRecord> LaunchdJobs::runningJob(const std::string& label) const {
    const auto text = readWholeFile(recordPath(label));
    auto record = text ? parseJobRecord(*text) : std::nullopt;
    if (!record || !isSameRunningProcess(record->process)) {
        return std::nullopt;
    }
    return record;
}

std::optional<StopMark> LaunchdJobs::stopMarkOf(const std::string& label,
                                                const StartedProcess& process) const {
    const auto text = readWholeFile(stopMarkPath(label));
    auto mark = text ? parseStopMark(*text) : std::nullopt;
    if (!mark || mark->process != process) {
        return std::nullopt;
    }
    return mark;
}

bool LaunchdJobs::kill(const std::string& label, const StopMark& mark) const {
    const auto began = std::chrono::steady_clock::now();
    // What is left of the job goes with its process: the group it leads.
    if (auto killed = signalJob(mark.process, SIGKILL, true); !killed) {
        tellJobMove(JobMove{label, JobMoveKind::Kill, false, began});
        return refuse("stop", label, killed.message());
    }
    tellJobMove(JobMove{label, JobMoveKind::Kill, true, began});
    log_("job " + label + " did not end in time after SIGTERM: sent SIGKILL to process " +
         std::to_string(mark.process.pid) + " and its process group");
    if (!awaitProcessEnd(mark.process, kKillSettleMilliseconds)) {
        return refuse("stop", label,
                      "its process (pid " + std::to_string(mark.process.pid) +
                          ") is still there after SIGKILL");
    }
    return true;
}

bool LaunchdJobs::killWhenOverdue(const std::string& label, const StopMark& mark) const {
    return bootClockMilliseconds() < mark.killAtMilliseconds || kill(label, mark);
}

bool LaunchdJobs::awaitEndOrKill(const std::string& label, const StopMark& mark) const {
    const std::int64_t left = mark.killAtMilliseconds - bootClockMilliseconds();
    return awaitProcessEnd(mark.process, std::max<std::int64_t>(left, 0)) || kill(label, mark);
}

bool LaunchdJobs::start(const std::string& label) {
    if (!isUsableLabel(label)) {
        return refuse("start", label, "the label is not a file name");
    }
    if (auto running = runningJob(label)) {
        auto mark = stopMarkOf(label, running->process);
        if (!mark) {
            return true;
        }
        // launchd starts a job that is being stopped only once its process has gone.
        if (!awaitEndOrKill(label, *mark)) {
            return false;
        }
    }
    auto job = readJobOfLabel(folders_.jobFolders, label);
    if (!job) {
        return refuse("start", label, job.message());
    }
    auto plan = planLaunch(*job);
    if (!plan) {
        return refuse("start", label, plan.message());
    }
    bool recorded = false;
    std::optional<support::Failure> recordFailure;
    // The record is written before the program runs, so that no job ever runs unrecorded.
    LaunchOutcome outcome = launchDetached(*plan, [&](const StartedProcess& process) {
        auto written = writeRecord(label, {process, job->exitTimeOutSeconds});
        recorded = written.ok();
        if (!recorded) {
            recordFailure = written.failure();
        }
        return recorded;
    });
    if (outcome.executed) {
        ::unlink(stopMarkPath(label).c_str());
        return true;
    }
    if (recorded) {
        ::unlink(recordPath(label).c_str());
    }
    return refuse("start", label, recordFailure ? recordFailure->message : outcome.failure);
}

bool LaunchdJobs::stop(const std::string& label) {
    if (!isUsableLabel(label)) {
        return refuse("stop", label, "the label is not a file name");
    }
    // The running job is stopped by its record, whatever has become of its file since.
    auto running = runningJob(label);
    if (!running) {
        if (!hasJobFile(folders_.jobFolders, label)) {
            return refuse("stop", label, "there is no job file " + label + ".plist");
        }
        return true;
    }
    // A second stop does not put the first one's deadline off.
    if (auto mark = stopMarkOf(label, running->process)) {
        return killWhenOverdue(label, *mark);
    }
    if (auto signalled = signalJob(running->process, SIGTERM, false); !signalled) {
        return refuse("stop", label, signalled.message());
    }
    const StopMark mark{running->process,
                        bootClockMilliseconds() + std::int64_t{running->exitTimeOutSeconds} * 1000};
    // Should the mark not be written, a start right after this stop finds the job still running,
    // and nothing kills it should it not end.
    if (auto marked =
            replaceWholeFileAtomically(stopMarkPath(label), formatStopMark(mark), kRecordFileMode);
        !marked) {
        log_(support::couldNot("mark as stopping job", label, marked.message()).message);
    }
    return true;
}

bool LaunchdJobs::isRunning(const std::string& label) const {
    if (!isUsableLabel(label)) {
        return false;
    }
    auto running = runningJob(label);
    if (!running) {
        return false;
    }
    if (auto mark = stopMarkOf(label, running->process)) {
        killWhenOverdue(label, *mark);
        return isSameRunningProcess(running->process);
    }
    return true;
}

std::vector<PendingStop> LaunchdJobs::pendingStops() const {
    std::vector<PendingStop> pending;
    std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(folders_.recordFolder.c_str()),
                                               &::closedir);
    if (!folder) {
        return pending;
    }
    constexpr std::string_view kMarkSuffix = ".stopping";
    while (const dirent* entry = ::readdir(folder.get())) {
        const std::string_view name = entry->d_name;
        if (name.size() <= kMarkSuffix.size() || !name.ends_with(kMarkSuffix)) {
            continue;
        }
        const std::string label(name.substr(0, name.size() - kMarkSuffix.size()));
        const auto running = runningJob(label);
        const auto mark = running ? stopMarkOf(label, running->process) : std::nullopt;
        if (mark) {
            const std::int64_t left = mark->killAtMilliseconds - bootClockMilliseconds();
            pending.push_back({label, std::max<std::int64_t>(left, 0)});
        }
    }
    return pending;
}

support::Status LaunchdJobs::writeRecord(const std::string& label, const JobRecord& record) const {
    // Root's own, so that no other account can put anything in place of a record.
    const support::Attributes folderAttributes{
        kRecordFolderMode, ::geteuid(), ::getegid(),
        std::to_string(::geteuid()) + ":" + std::to_string(::getegid())};
    if (auto folder = support::createFolders(folders_.recordFolder, folderAttributes); !folder) {
        return folder;
    }
    return replaceWholeFileAtomically(recordPath(label), formatJobRecord(record), kRecordFileMode);
}

bool LaunchdJobs::refuse(const char* action, const std::string& label,
                         const std::string& why) const {
    log_(support::couldNot(std::string(action) + " job", label, why).message);
    return false;
}

}  // namespace velnor
