// Ending the database server's idle client connections before a stop.
//
// A process is known by three things only: its effective user id, the executable path that the
// kernel recorded when it started, and its first argument, which a server process overwrites
// with its title. A title that begins "postgres:" and ends "idle" is a client connection waiting
// for its next command; one idle inside a transaction goes on after the word and is left alone.
//
// The table is read before any process is looked at, so a pid in it may belong to another
// process by then. Each candidate is therefore held by a handle before it is examined, and
// signalled through that handle: what is read after the handle was opened describes the
// process it holds, or one that took the pid after it ended, which the handle's signal cannot
// reach.
#include <signal.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string_view>

#include "clients/ProcessArguments.h"
#include "handler/Constants.h"
#include "handler/Log.h"
#include "handler/PostgresRequestHandler.h"
#include "platform/HostLibrary.h"
#include "platform/Kernel.h"

namespace velnor::postgres {
namespace {

// The service account's numeric id, fixed on purpose rather than looked up by name.
constexpr uid_t kPostgresUid = 216;
constexpr char kIdleTitlePrefix[] = "postgres:";
constexpr char kIdleTitleSuffix[] = "idle";
// Process ids 0 and 1 are never examined.
constexpr std::int32_t kLowestPidTouched = 2;

constexpr std::size_t kExecutableElement = 1;
constexpr std::size_t kTitleElement = 2;

// The cheap tests of the table record: only these processes cost an argument read.
bool isServiceAccountProcess(const kinfo_proc& record) {
    return record.kp_proc.p_pid >= kLowestPidTouched &&
           record.kp_eproc.e_ucred.cr_uid == kPostgresUid;
}

bool isIdleClientCommandLine(const std::vector<std::string>& arguments) {
    if (arguments.size() <= kTitleElement) {
        return false;
    }
    const std::string_view executable = arguments[kExecutableElement];
    const std::string_view title = arguments[kTitleElement];
    return executable.starts_with(kPostgresExecutable) && title.starts_with(kIdleTitlePrefix) &&
           title.ends_with(kIdleTitleSuffix);
}

// The owner the table gave, checked again now that the process is held: the pid may have
// passed to a process of another account since the table was read.
bool stillBelongsToServiceAccount(std::int32_t pid) {
    const support::Result<uid_t> owner = platform::processOwner(pid);
    return owner && *owner == kPostgresUid;
}

void logCannotInteractWithSysctl() {
    logMessage(LOG_ERR, "Cannot interact with sysctl");
}

}  // namespace

bool PostgresRequestHandler::shutDownIdleClients() {
    kinfo_proc* table = nullptr;
    std::size_t count = 0;
    if (platform::getProcessTable(&table, &count) != 0) {
        logMessage(LOG_ERR, "Cannot get process table");
        return false;
    }
    // The library keeps the table; it is never released here.
    for (std::size_t index = 0; index < count; ++index) {
        const kinfo_proc& record = table[index];
        if (!isServiceAccountProcess(record)) {
            continue;
        }
        const std::int32_t pid = record.kp_proc.p_pid;
        // A process that has ended since the table was read cannot be held: nothing to end.
        const support::Result<platform::ProcessHandle> process = platform::openProcess(pid);
        if (!process) {
            continue;
        }
        const auto arguments = commandLineArgumentsForPid(pid);
        if (!isIdleClientCommandLine(arguments) || !stillBelongsToServiceAccount(pid)) {
            continue;
        }
        logMessage(LOG_WARNING, "killing idle postgres process with signature \"%s\", pid=%d\n",
                   arguments[kTitleElement].c_str(), pid);
        // Not waited for: the clients end on their own time while the stop goes on. A client
        // that ended meanwhile is simply not signalled.
        (void)platform::signalProcess(*process, SIGTERM);
    }
    return true;
}

std::vector<std::string> PostgresRequestHandler::commandLineArgumentsForPid(std::int32_t pid) {
    const int argumentMaximumName[] = {platform::kCtlKern, platform::kKernArgmax};
    std::int32_t argumentMaximum = 0;
    std::size_t size = sizeof argumentMaximum;
    if (platform::sysctl(argumentMaximumName, 2, &argumentMaximum, &size, nullptr, 0) == -1) {
        logCannotInteractWithSysctl();
        return {};
    }

    const auto bufferSize = static_cast<std::size_t>(std::max<std::int32_t>(argumentMaximum, 0));
    // Zero-filled, so that a last piece without its zero byte ends in the untouched rest.
    auto buffer = std::make_unique<char[]>(bufferSize);
    const int argumentsName[] = {platform::kCtlKern, platform::kKernProcargs2, pid};
    std::size_t length = bufferSize;
    if (platform::sysctl(argumentsName, 3, buffer.get(), &length, nullptr, 0) == -1) {
        logCannotInteractWithSysctl();
        return {};
    }
    return cutArgumentBuffer({buffer.get(), bufferSize}, length);
}

}  // namespace velnor::postgres
