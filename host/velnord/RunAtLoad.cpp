#include "RunAtLoad.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string_view>
#include <vector>

#include "LaunchDaemon.h"
#include "LaunchdJob.h"
#include "PathNames.h"
#include "Result.h"
#include "SafePath.h"

namespace velnor::host {
namespace {

constexpr std::string_view kJobFileSuffix = ".plist";

void logSkipped(const std::string& message) {
    ::syslog(LOG_ERR, "%s", message.c_str());
}

// The labels of the job files in the folder, sorted; the folder must be root's alone.
support::Result<std::vector<std::string>> labelsIn(const std::string& folder) {
    std::string untrusted;
    support::Result<support::UniqueFd> opened = support::openSafely(folder, &untrusted);
    if (!opened) {
        return opened.failure();
    }
    if (!untrusted.empty()) {
        return support::Failure{EPERM, "cannot run the jobs of \"" + folder + "\": " + untrusted};
    }
    support::Result<support::UniqueFd> listing =
        support::reopen(opened->get(), O_RDONLY | O_DIRECTORY, folder);
    if (!listing) {
        return listing.failure();
    }
    // The listing owns a copy of the descriptor, and closes it.
    const int copy = ::fcntl(listing->get(), F_DUPFD_CLOEXEC, 0);
    std::unique_ptr<DIR, int (*)(DIR*)> entries(copy >= 0 ? ::fdopendir(copy) : nullptr,
                                                &::closedir);
    if (!entries) {
        if (copy >= 0) {
            ::close(copy);
        }
        return support::couldNot("list", folder, errno);
    }
    std::vector<std::string> labels;
    while (const dirent* entry = ::readdir(entries.get())) {
        const std::string_view name = entry->d_name;
        if (name.size() > kJobFileSuffix.size() && name.ends_with(kJobFileSuffix)) {
            labels.emplace_back(name.substr(0, name.size() - kJobFileSuffix.size()));
        }
    }
    std::sort(labels.begin(), labels.end());
    return labels;
}

// The job that the file describes, read only when root can trust the file and it is no link.
support::Result<LaunchdJob> trustedJob(const std::string& path) {
    struct stat status;
    if (::lstat(path.c_str(), &status) != 0) {
        return support::couldNot("examine", path, errno);
    }
    if (S_ISLNK(status.st_mode)) {
        return support::Failure{EPERM,
                                "cannot run \"" + path + "\" at load: it is a symbolic link"};
    }
    std::string untrusted;
    support::Result<support::UniqueFd> opened = support::openSafely(path, &untrusted);
    if (!opened) {
        return opened.failure();
    }
    if (!untrusted.empty()) {
        return support::Failure{EPERM, "cannot run \"" + path + "\" at load: " + untrusted};
    }
    support::Result<support::UniqueFd> readable =
        support::reopen(opened->get(), O_RDONLY | O_NONBLOCK | O_NOCTTY, path);
    if (!readable) {
        return readable.failure();
    }
    return readLaunchdJob(readable->get(), path);
}

}  // namespace

void startJobsThatRunAtLoad(const std::string& folder) {
    support::Result<std::vector<std::string>> labels = labelsIn(folder);
    if (!labels) {
        // No folder, no jobs: that is no failure.
        if (labels.error() != ENOENT) {
            logSkipped(labels.message());
        }
        return;
    }
    for (const std::string& label : *labels) {
        support::Result<LaunchdJob> job =
            trustedJob(support::joinedPath(folder, label + std::string(kJobFileSuffix)));
        if (!job) {
            logSkipped(job.message());
        } else if (job->runAtLoad && !job->disabled) {
            SetLaunchDaemonServiceState(label, 1);
        }
    }
}

}  // namespace velnor::host
