#include "FakePlatform.h"

#include <errno.h>

#include <cstring>

#include "platform/HostLibrary.h"
#include "platform/Kernel.h"
#include "platform/Libpq.h"
#include "platform/SystemLog.h"

namespace velnor::testing {

FakePlatform& fake() {
    static FakePlatform platform;
    return platform;
}

void FakePlatform::addFolder(const std::string& path) {
    entries[path] = FakeEntry{FakeEntry::Kind::Folder, std::nullopt, "", std::nullopt, ""};
}

void FakePlatform::addFile(const std::string& path) {
    entries[path] = FakeEntry{FakeEntry::Kind::File, std::nullopt, "", std::nullopt, ""};
}

void FakePlatform::addLink(const std::string& path, const std::string& target) {
    entries[path] = FakeEntry{FakeEntry::Kind::Link, std::nullopt, "", std::nullopt, target};
}

const FakeEntry* FakePlatform::entry(const std::string& path) const {
    auto found = entries.find(path);
    return found == entries.end() ? nullptr : &found->second;
}

bool FakePlatform::exists(const std::string& path) const {
    return entry(path) != nullptr;
}

std::vector<std::string> FakePlatform::callsStartingWith(const std::string& prefix) const {
    std::vector<std::string> matching;
    for (const auto& call : calls) {
        if (call.rfind(prefix, 0) == 0) {
            matching.push_back(call);
        }
    }
    return matching;
}

std::vector<std::string> FakePlatform::logMessages() const {
    std::vector<std::string> messages;
    for (const auto& entry : log) {
        messages.push_back(entry.message);
    }
    return messages;
}

std::string processArgumentBytes(std::uint32_t count, const std::string& executable,
                                 const std::vector<std::string>& arguments,
                                 const std::vector<std::string>& environment) {
    std::string bytes(sizeof count, '\0');
    std::memcpy(bytes.data(), &count, sizeof count);
    bytes += executable;
    bytes += std::string(4, '\0');  // the terminator and padding
    for (const auto& piece : arguments) {
        bytes += piece;
        bytes += '\0';
    }
    for (const auto& piece : environment) {
        bytes += piece;
        bytes += '\0';
    }
    return bytes;
}

namespace {

// Follows links the way stat does; a dangling link or a loop counts as nothing.
const FakeEntry* resolve(const std::string& path) {
    std::string current = path;
    for (int hops = 0; hops < 8; ++hops) {
        const FakeEntry* entry = fake().entry(current);
        if (!entry || entry->kind != FakeEntry::Kind::Link) {
            return entry;
        }
        current = entry->linkTarget;
    }
    return nullptr;
}

std::string parentOf(const std::string& path) {
    const auto slash = path.find_last_of('/');
    return slash == std::string::npos || slash == 0 ? "" : path.substr(0, slash);
}

FakeProcess* findProcess(std::int32_t pid) {
    if (!fake().processes) {
        return nullptr;
    }
    for (auto& process : *fake().processes) {
        if (process.pid == pid) {
            return &process;
        }
    }
    return nullptr;
}

int failWith(int error) {
    errno = error;
    return -1;
}

}  // namespace
}  // namespace velnor::testing

namespace velnor::platform {

using testing::fake;
using testing::FakeEntry;

bool getLaunchDaemonServiceState(const std::string& label) {
    fake().calls.push_back("getLaunchDaemonServiceState " + label);
    return fake().jobRunning;
}

bool setLaunchDaemonServiceState(const std::string& label, int state) {
    fake().calls.push_back("setLaunchDaemonServiceState " + label + " " + std::to_string(state));
    fake().requestedStates.push_back(state);
    if (fake().launchdAccepts) {
        fake().jobRunning = state == 1;
    }
    return fake().launchdAccepts;
}

std::optional<LaunchArguments> getLaunchDaemonServiceConfigArgs(const std::string& path) {
    fake().calls.push_back("getLaunchDaemonServiceConfigArgs " + path);
    return fake().jobArguments;
}

bool setLaunchDaemonServiceConfigArgs(const std::string& path, const LaunchArguments& arguments) {
    fake().calls.push_back("setLaunchDaemonServiceConfigArgs " + path);
    fake().storedArguments.push_back(arguments);
    fake().jobArguments = arguments;
    return true;
}

std::int32_t getProcessTable(kinfo_proc** table, std::size_t* count) {
    fake().calls.push_back("getProcessTable");
    if (!fake().processes) {
        return 1;
    }
    fake().table.clear();
    for (const auto& process : *fake().processes) {
        kinfo_proc record{};
        record.kp_proc.p_pid = process.pid;
        record.kp_eproc.e_ucred.cr_uid = process.uid;
        fake().table.push_back(record);
    }
    *table = fake().table.data();
    *count = fake().table.size();
    return 0;
}

int sysctl(const int* name, unsigned int namelen, void* oldp, std::size_t* oldlenp, const void*,
           std::size_t) {
    if (namelen == 2 && name[0] == kCtlKern && name[1] == kKernArgmax) {
        fake().calls.push_back("sysctl argmax");
        if (fake().argumentMaximumFails) {
            return testing::failWith(EIO);
        }
        std::memcpy(oldp, &fake().argumentMaximum, sizeof(std::int32_t));
        *oldlenp = sizeof(std::int32_t);
        return 0;
    }
    if (namelen == 3 && name[0] == kCtlKern && name[1] == kKernProcargs2) {
        fake().calls.push_back("sysctl procargs " + std::to_string(name[2]));
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
    fake().calls.push_back("openProcess " + std::to_string(pid));
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
    return process->ownerOnceHeld.value_or(process->uid);
}

support::Status signalProcess(const ProcessHandle& process, int signal) {
    fake().calls.push_back("signal " + std::to_string(process.pid) + " " + std::to_string(signal));
    fake().signalsSent.emplace_back(process.pid, signal);
    return {};
}

int usleep(useconds_t microseconds) {
    fake().calls.push_back("usleep " + std::to_string(microseconds));
    fake().sleeps.push_back(microseconds);
    return 0;
}

void syslog(int priority, const std::string& message) {
    fake().calls.push_back("syslog " + std::to_string(priority) + " " + message);
    fake().log.push_back({priority, message});
}

bool fileExists(const std::string& path, bool* isDirectory) {
    fake().calls.push_back("fileExists " + path);
    const FakeEntry* entry = testing::resolve(path);
    if (entry && isDirectory) {
        *isDirectory = entry->kind == FakeEntry::Kind::Folder;
    }
    return entry != nullptr;
}

support::Status createDirectory(const std::string& path,
                                const std::optional<FileAttributes>& attributes) {
    fake().calls.push_back("createDirectory " + path);
    auto failure = fake().createDirectoryFailures.find(path);
    if (failure != fake().createDirectoryFailures.end()) {
        return support::Failure{0, failure->second};
    }
    std::vector<std::string> missing;
    for (std::string folder = path; !folder.empty(); folder = testing::parentOf(folder)) {
        const FakeEntry* entry = testing::resolve(folder);
        if (entry && entry->kind == FakeEntry::Kind::Folder) {
            break;
        }
        if (entry) {
            return support::couldNot("create folder", path, EEXIST);
        }
        missing.push_back(folder);
    }
    for (const auto& folder : missing) {
        fake().entries[folder] =
            FakeEntry{FakeEntry::Kind::Folder, attributes, "", std::nullopt, ""};
    }
    return {};
}

support::Status setAttributes(const std::string& path, const FileAttributes& attributes) {
    fake().calls.push_back("setAttributes " + path);
    auto failure = fake().setAttributesFailures.find(path);
    if (failure != fake().setAttributesFailures.end()) {
        return support::Failure{0, failure->second};
    }
    auto entry = fake().entries.find(path);
    if (entry == fake().entries.end()) {
        return support::couldNot("set attributes of", path, ENOENT);
    }
    entry->second.attributes = attributes;
    return {};
}

support::Status createFile(const std::string& path, const std::string& contents,
                           const FileAttributes& attributes) {
    fake().calls.push_back("createFile " + path);
    fake().entries[path] = FakeEntry{FakeEntry::Kind::File, attributes, contents, std::nullopt, ""};
    return {};
}

support::Result<PlistDictionary> readPropertyListDictionary(const std::string& path) {
    fake().calls.push_back("readPropertyListDictionary " + path);
    const FakeEntry* entry = testing::resolve(path);
    if (!entry || !entry->propertyList) {
        return support::couldNot("read", path, ENOENT);
    }
    return *entry->propertyList;
}

support::Status writePropertyListDictionary(const std::string& path,
                                            const PlistDictionary& dictionary) {
    fake().calls.push_back("writePropertyListDictionary " + path);
    auto& entry = fake().entries[path];
    entry.kind = FakeEntry::Kind::File;
    entry.propertyList = dictionary;
    return {};
}

PGconn* pqConnectdb(const char* conninfo) {
    fake().calls.push_back(std::string("pqConnectdb ") + conninfo);
    ++fake().connectionsOpened;
    std::optional<int> answer = fake().serverAnswers;
    if (fake().serverFollowsJob) {
        answer = fake().jobRunning ? std::optional(150000) : std::nullopt;
    }
    if (!fake().probeAnswers.empty()) {
        answer = fake().probeAnswers.front();
        fake().probeAnswers.pop_front();
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
    fake().calls.push_back("pqFinish");
    ++fake().connectionsFinished;
    delete reinterpret_cast<int*>(connection);
}

}  // namespace velnor::platform
