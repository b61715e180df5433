#include "FakePlatform.h"

#include <errno.h>

#include <cstring>

#include "platform/FileSystem.h"
#include "platform/HostLibrary.h"
#include "platform/Kernel.h"
#include "platform/Libpq.h"
#include "platform/SystemLog.h"

namespace velnor::testing {

FakePlatform& fake() {
    static FakePlatform platform;
    return platform;
}

std::vector<std::string> FakePlatform::callsStartingWith(const std::string& prefix) const {
    std::vector<std::string> matching;
    std::copy_if(calls.begin(), calls.end(), std::back_inserter(matching),
                 [&](const std::string& call) { return call.starts_with(prefix); });
    return matching;
}

std::vector<std::string> FakePlatform::logMessages() const {
    std::vector<std::string> messages;
    for (const auto& entry : log) {
        messages.push_back(entry.message);
    }
    return messages;
}

namespace {

FakeProcess* findProcess(std::int32_t pid) {
    if (fake().processes) {
        for (auto& process : *fake().processes) {
            if (process.pid == pid) {
                return &process;
            }
        }
    }
    return nullptr;
}

int failWith(int error) {
    errno = error;
    return -1;
}

// Records a call as "name argument..." and answers the fake.
FakePlatform& called(const std::string& call) {
    fake().calls.push_back(call);
    return fake();
}

}  // namespace
}  // namespace velnor::testing

namespace velnor::platform {

using testing::called;
using testing::fake;

bool getLaunchDaemonServiceState(const std::string& label) {
    return called("getLaunchDaemonServiceState " + label).jobRunning;
}

bool setLaunchDaemonServiceState(const std::string& label, int state) {
    auto& platform = called("setLaunchDaemonServiceState " + label + " " + std::to_string(state));
    platform.requestedStates.push_back(state);
    if (platform.launchdAccepts) {
        platform.jobRunning = state == 1;
    }
    return platform.launchdAccepts;
}

std::optional<LaunchArguments> getLaunchDaemonServiceConfigArgs(const std::string& path) {
    return called("getLaunchDaemonServiceConfigArgs " + path).jobArguments;
}

bool setLaunchDaemonServiceConfigArgs(const std::string& path, const LaunchArguments& arguments) {
    called("setLaunchDaemonServiceConfigArgs " + path).storedArguments.push_back(arguments);
    fake().jobArguments = arguments;
    return true;
}

std::int32_t getProcessTable(kinfo_proc** table, std::size_t* count) {
    auto& platform = called("getProcessTable");
    if (!platform.processes) {
        return 1;
    }
    platform.table.clear();
    for (const auto& process : *platform.processes) {
        kinfo_proc record{};
        record.kp_proc.p_pid = process.pid;
        record.kp_eproc.e_ucred.cr_uid = process.uid;
        platform.table.push_back(record);
    }
    *table = platform.table.data();
    *count = platform.table.size();
    return 0;
}

int sysctl(const int* name, unsigned int namelen, void* oldp, std::size_t* oldlenp, const void*,
           std::size_t) {
    if (namelen == 2 && name[0] == kCtlKern && name[1] == kKernArgmax) {
        if (called("sysctl argmax").argumentMaximumFails) {
            return testing::failWith(EIO);
        }
        std::memcpy(oldp, &fake().argumentMaximum, sizeof(std::int32_t));
        *oldlenp = sizeof(std::int32_t);
        return 0;
    }
    if (namelen == 3 && name[0] == kCtlKern && name[1] == kKernProcargs2) {
        called("sysctl procargs " + std::to_string(name[2]));
        const auto* process = testing::findProcess(name[2]);
        if (!process || !process->argumentBytes) {
            return testing::failWith(ESRCH);
        }
        const std::string& bytes = *process->argumentBytes;
        if (bytes.size() > *oldlenp) {
            return testing::failWith(ENOMEM);
        }
        std::memcpy(oldp, bytes.data(), bytes.size());
        *oldlenp = bytes.size();
        return 0;
    }
    return testing::failWith(ENOTSUP);
}

support::Result<ProcessHandle> openProcess(pid_t pid) {
    called("openProcess " + std::to_string(pid));
    if (!testing::findProcess(pid)) {
        return support::couldNot("open", "process " + std::to_string(pid), ESRCH);
    }
    return ProcessHandle{pid, support::UniqueFd()};
}

support::Result<uid_t> processOwner(pid_t pid) {
    const auto* process = testing::findProcess(pid);
    if (!process) {
        return support::couldNot("read", "/proc/" + std::to_string(pid) + "/status", ENOENT);
    }
    return process->uid;
}

support::Status signalProcess(const ProcessHandle& process, int signal) {
    called("signal " + std::to_string(process.pid)).signalsSent.emplace_back(process.pid, signal);
    return {};
}

int usleep(useconds_t microseconds) {
    called("usleep " + std::to_string(microseconds));
    return 0;
}

void syslog(int priority, const std::string& message) {
    called("syslog " + message).log.push_back({priority, message});
}

bool fileExists(const std::string& path, bool* isDirectory) {
    const auto& entries = called("fileExists " + path).entries;
    const auto found = entries.find(path);
    if (found != entries.end() && isDirectory) {
        *isDirectory = found->second.folder;
    }
    return found != entries.end();
}

support::Status createDirectory(const std::string& path, const std::optional<FileAttributes>&) {
    const auto& failures = called("createDirectory " + path).createDirectoryFailures;
    if (failures.contains(path)) {
        return support::Failure{0, failures.at(path)};
    }
    fake().addFolder(path);
    return {};
}

support::Status setAttributes(const std::string& path, const FileAttributes&) {
    const auto& failures = called("setAttributes " + path).setAttributesFailures;
    if (failures.contains(path)) {
        return support::Failure{0, failures.at(path)};
    }
    return {};
}

support::Status createFile(const std::string& path, const std::string&, const FileAttributes&) {
    called("createFile " + path).addFile(path);
    return {};
}

support::Result<PlistDictionary> readPropertyListDictionary(const std::string& path) {
    const auto& entries = called("readPropertyListDictionary " + path).entries;
    if (entries.contains(path) && entries.at(path).propertyList) {
        return *entries.at(path).propertyList;
    }
    return support::couldNot("read", path, ENOENT);
}

support::Status writePropertyListDictionary(const std::string& path,
                                            const PlistDictionary& dictionary) {
    called("writePropertyListDictionary " + path).entries[path] = {false, dictionary};
    return {};
}

PGconn* pqConnectdb(const char* conninfo) {
    auto& platform = called(std::string("pqConnectdb ") + conninfo);
    std::optional<int> answer = platform.serverAnswers;
    if (platform.serverFollowsJob) {
        answer = platform.jobRunning ? std::optional(150000) : std::nullopt;
    }
    if (!platform.probeAnswers.empty()) {
        answer = platform.probeAnswers.front();
        platform.probeAnswers.pop_front();
    }
    // The connection handle carries the answer: 0 for a failed connection, else the version.
    return reinterpret_cast<PGconn*>(new int(answer.value_or(0)));
}

ConnStatusType pqStatus(const PGconn* connection) {
    return *reinterpret_cast<const int*>(connection) != 0 ? CONNECTION_OK : CONNECTION_BAD;
}

int pqServerVersion(const PGconn* connection) {
    return *reinterpret_cast<const int*>(connection);
}

void pqFinish(PGconn* connection) {
    called("pqFinish");
    delete reinterpret_cast<int*>(connection);
}

}  // namespace velnor::platform
