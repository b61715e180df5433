#include "LaunchdJobs.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
// This glibc's header forgets C linkage.
extern "C" {
#include <sys/pidfd.h>
}

#include <cerrno>
#include <charconv>

#include "HostLog.h"
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

// A label names the job file and the record, so it must be one plain file name.
bool isUsableLabel(const std::string& label) {
    return !label.empty() && label != "." && label != ".." &&
           label.find('/') == std::string::npos && label.find('\0') == std::string::npos;
}

bool isSameRunningProcess(const StartedProcess& process) {
    auto stat = readProcessStat(kProcRoot, process.pid);
    return stat && stat->running() && stat->startTime == process.startTime;
}

// Reads one decimal number from the front of text, which must then go on with separator.
template <typename Number>
bool takeNumber(std::string_view& text, char separator, Number& number) {
    auto [past, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (failure != std::errc() || past == text.data() || past == text.data() + text.size() ||
        *past != separator) {
        return false;
    }
    text.remove_prefix(static_cast<std::size_t>(past - text.data()) + 1);
    return true;
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

std::string formatJobRecord(const StartedProcess& process) {
    return std::to_string(process.pid) + " " + std::to_string(process.startTime) + "\n";
}

std::optional<StartedProcess> parseJobRecord(const std::string& text) {
    std::string_view rest = text;
    StartedProcess process{};
    if (!takeNumber(rest, ' ', process.pid) || !takeNumber(rest, '\n', process.startTime) ||
        !rest.empty() || process.pid <= 0) {
        return std::nullopt;
    }
    return process;
}

LaunchdJobs::LaunchdJobs(Folders folders, FailureLog log, int stopGraceMilliseconds)
    : folders_(std::move(folders)),
      log_(std::move(log)),
      stopGraceMilliseconds_(stopGraceMilliseconds) {}

LaunchdJobs LaunchdJobs::onThisMachine() {
    return LaunchdJobs(
        {{"/System/Library/LaunchDaemons", "/Library/LaunchDaemons"}, "/var/run/velnor/launchd"},
        &logHostFailure);
}

std::string LaunchdJobs::recordPath(const std::string& label) const {
    return folders_.recordFolder + "/" + label;
}

std::string LaunchdJobs::stoppingPath(const std::string& label) const {
    return recordPath(label) + ".stopping";
}

bool LaunchdJobs::wasAskedToStop(const std::string& label, const StartedProcess& process) const {
    const auto text = readWholeFile(stoppingPath(label));
    const auto stopping = text ? parseJobRecord(*text) : std::nullopt;
    return stopping && stopping->pid == process.pid && stopping->startTime == process.startTime;
}

bool LaunchdJobs::awaitEnd(const std::string& label, const StartedProcess& process) const {
    // A pid descriptor becomes readable when its process ends, whoever its parent is.
    support::UniqueFd pinned(::pidfd_open(process.pid, 0));
    if (pinned.valid() && isSameRunningProcess(process)) {
        pollfd ending{pinned.get(), POLLIN, 0};
        while (::poll(&ending, 1, stopGraceMilliseconds_) < 0 && errno == EINTR) {
        }
    }
    if (!isSameRunningProcess(process)) {
        return true;
    }
    return refuse("start", label,
                  "its process (pid " + std::to_string(process.pid) + ") is still stopping after " +
                      std::to_string(stopGraceMilliseconds_) + " ms");
}

bool LaunchdJobs::start(const std::string& label) {
    if (!isUsableLabel(label)) {
        return refuse("start", label, "the label is not a file name");
    }
    if (auto process = runningProcess(label)) {
        if (!wasAskedToStop(label, *process)) {
            return true;
        }
        // launchd starts a job that is being removed only once its process has gone.
        if (!awaitEnd(label, *process)) {
            return false;
        }
    }
    auto jobFile = findJobFile(folders_.jobFolders, label);
    if (!jobFile) {
        return refuse("start", label, "there is no job file " + label + ".plist");
    }
    // launchd runs nothing from a file that another account could have written or replaced.
    if (!jobFile->refusal.empty()) {
        return refuse("start", label, jobFile->refusal);
    }
    // Read through the descriptor that was checked: the path may lead elsewhere by now.
    auto readable =
        support::reopen(jobFile->descriptor.get(), O_RDONLY | O_NONBLOCK | O_NOCTTY, jobFile->path);
    if (!readable) {
        return refuse("start", label, readable.message());
    }
    auto job = readLaunchdJob(readable->get(), jobFile->path);
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
        auto written = writeRecord(label, process);
        recorded = written.ok();
        if (!recorded) {
            recordFailure = written.failure();
        }
        return recorded;
    });
    if (outcome.executed) {
        ::unlink(stoppingPath(label).c_str());
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
    if (!findJobFile(folders_.jobFolders, label)) {
        return refuse("stop", label, "there is no job file " + label + ".plist");
    }
    auto process = runningProcess(label);
    if (!process) {
        return true;
    }
    if (auto signalled = signalToStop(*process); !signalled) {
        return refuse("stop", label, signalled.message());
    }
    // Remembered so that a start can tell a job winding down from one that runs. Should the
    // mark not be written, a start right after this stop finds the job still running.
    if (auto marked = replaceWholeFileAtomically(stoppingPath(label), formatJobRecord(*process),
                                                 kRecordFileMode);
        !marked) {
        log_(support::couldNot("mark as stopping job", label, marked.message()).message);
    }
    return true;
}

bool LaunchdJobs::isRunning(const std::string& label) const {
    return isUsableLabel(label) && runningProcess(label).has_value();
}

std::optional<StartedProcess> LaunchdJobs::runningProcess(const std::string& label) const {
    const auto text = readWholeFile(recordPath(label));
    if (!text) {
        return std::nullopt;
    }
    auto process = parseJobRecord(*text);
    if (!process || !isSameRunningProcess(*process)) {
        return std::nullopt;
    }
    return process;
}

support::Status LaunchdJobs::writeRecord(const std::string& label,
                                         const StartedProcess& process) const {
    // Root's own, so that no other account can put anything in place of a record.
    const support::Attributes folderAttributes{
        kRecordFolderMode, ::geteuid(), ::getegid(),
        std::to_string(::geteuid()) + ":" + std::to_string(::getegid())};
    if (auto folder = support::createFolders(folders_.recordFolder, folderAttributes); !folder) {
        return folder;
    }
    return replaceWholeFileAtomically(recordPath(label), formatJobRecord(process), kRecordFileMode);
}

support::Status LaunchdJobs::signalToStop(const StartedProcess& process) const {
    const std::string target = "process " + std::to_string(process.pid);
    // A pid descriptor pins one process. Checking the start time again through it leaves no
    // moment in which the pid could pass to another process before the signal.
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
    if (::pidfd_send_signal(pinned.get(), SIGTERM, nullptr, 0) != 0 && errno != ESRCH) {
        return support::couldNot("send SIGTERM to", target, errno);
    }
    return {};
}

bool LaunchdJobs::refuse(const char* action, const std::string& label,
                         const std::string& why) const {
    log_(support::couldNot(std::string(action) + " job", label, why).message);
    return false;
}

}  // namespace velnor
