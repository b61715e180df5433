// velnor-direct, the in-process host: velnor hands its command line over to it (by exec) for
// --direct, when no daemon answers, or when the command names a plug-in other than the daemon's.
// It loads the plug-in and runs the call under the host lock, as the daemon would.
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Caller.h"
#include "CommandLine.h"
#include "Conclusion.h"
#include "ExitStatus.h"
#include "HostEnvironment.h"
#include "HostLock.h"
#include "Invocation.h"
#include "PluginLoader.h"
#include "RestartLedger.h"
#include "SystemLog.h"
#include "Terminal.h"

namespace velnor::host {
namespace {

std::string pluginPathFor(const Command& command) {
    return choosePluginPath(command.pluginPath, std::getenv("VELNOR_PLUGIN"),
                            VELNOR_PLUGIN_FROM_PROGRAM);
}

// Takes the host lock for the whole run; nothing, with the exit status in status, when it
// cannot be had. velnord holds it only around each of its calls, so a run waits at most for the
// call it is making.
std::optional<HostLock::Held> takeHostLock(const HostLock& lock, const Command& command,
                                           int* status) {
    LockWait wait;
    wait.limit = command.lockWait;
    wait.announce = [&lock](const std::string& holder) {
        complain("waiting for the host lock \"" + lock.path() + "\" held by " + holder);
    };
    support::Result<HostLock::Held> held = lock.hold(wait);
    if (!held) {
        complain(held.message());
        *status = held.error() == ETIMEDOUT ? kExitLockBusy : kExitNoLock;
        return std::nullopt;
    }
    return std::move(*held);
}

// Loads the plug-in and runs the call in this process, under the host lock.
// The ledger's figures as velnord last wrote them; a file that cannot be read is told, and shows
// as an empty ledger.
PlistValue ledgerFiguresOfFile() {
    const std::string today = localDayOf(std::chrono::system_clock::now());
    support::Result<RestartLedger> ledger = readLedgerFile(kRestartLedgerPath);
    if (!ledger) {
        complain(ledger.message());
        return ledgerFigures(RestartLedger{}, today);
    }
    return ledgerFigures(*ledger, today);
}

int runInProcess(const Command& command) {
    setDefaultPostgresEnvironment();
    // Before the module is even loaded, so that everything the plug-in logs also reaches
    // whoever runs the host.
    support::openSystemLog("velnor", (command.quiet ? 0 : LOG_PERROR) | LOG_PID, LOG_DAEMON);

    support::Result<std::unique_ptr<PluginModule>> module =
        PluginModule::open(pluginPathFor(command));
    if (!module) {
        complain(module.message());
        return kExitUnavailable;
    }
    const PluginDescriptor& plugin = (*module)->descriptor();
    int status = kExitNormal;
    std::optional<PreparedCall> prepared = prepareCall(command, plugin, &status);
    if (!prepared) {
        return status;
    }
    support::Result<HostLock> lock = HostLock::open(hostLockPath(std::getenv("VELNOR_LOCK_FILE")));
    if (!lock) {
        complain(lock.message());
        return kExitNoLock;
    }
    std::optional<HostLock::Held> held = takeHostLock(*lock, command, &status);
    if (!held) {
        return status;
    }
    // The class hook runs once, before the first call, as the daemon runs it once.
    bool initialized = false;
    Call call = [&plugin, &initialized](const std::string& name, const OperationArgument& argument,
                                        const CallGuard& guard) -> support::Result<Outcome> {
        support::Result<const HostOperation*> operation = operationTaking(plugin, name, argument);
        if (!operation) {
            return operation.failure();
        }
        // The run holds the host lock throughout: nothing comes between the guard and the call.
        if (guard) {
            if (support::Status allowed = guard(); !allowed) {
                return allowed.failure();
            }
        }
        if (!std::exchange(initialized, true)) {
            return runOperation(plugin, **operation, argument);
        }
        return callWithNewHandler(plugin, **operation, argument);
    };
    return conclude(command, prepared->argument, call, callerOfThisProcess(), ledgerFiguresOfFile);
}

int runCommandLine(std::span<const std::string_view> arguments) {
    support::Result<Command> parsed = parseCommandLine(arguments);
    if (!parsed) {
        return usageError(parsed.message());
    }
    if (std::optional<int> status = answerWithoutPlugin(*parsed)) {
        return *status;
    }
    // The operations create folders for the service account, rewrite the job file and signal
    // the server: nothing of it is tried, and no lock taken, for anyone else.
    if (geteuid() != 0) {
        complain("must be run as root");
        return kExitNotRoot;
    }
    return runInProcess(*parsed);
}

}  // namespace
}  // namespace velnor::host

int main(int argc, char** argv) {
    std::vector<std::string_view> arguments(argv + 1, argv + argc);
    return velnor::host::runCommandLine(arguments);
}
