// The in-process host, loaded by velnor only for --direct or when no daemon answers: it loads
// the plug-in and runs the call under the host lock, as the daemon would.
#include <syslog.h>

#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "CommandLine.h"
#include "Conclusion.h"
#include "DirectModule.h"
#include "ExitStatus.h"
#include "Export.h"
#include "HostEnvironment.h"
#include "HostLock.h"
#include "Invocation.h"
#include "PluginLoader.h"

namespace velnor::host {
namespace {

std::string pluginPathFor(const Command& command) {
    return choosePluginPath(command.pluginPath, std::getenv("VELNOR_PLUGIN"),
                            VELNOR_PLUGIN_FROM_PROGRAM);
}

// Takes the host lock for the whole run; nothing, with the exit status in status, when it
// cannot be had.
std::optional<HostLock> takeHostLock(const Command& command, int* status) {
    const std::string path = hostLockPath(std::getenv("VELNOR_LOCK_FILE"));
    LockWait wait;
    wait.limit = command.lockWait;
    wait.announce = [&path] {
        complain("waiting for the host lock \"" + path + "\" held by another velnor");
    };
    support::Result<HostLock> lock = HostLock::acquire(path, wait);
    if (!lock) {
        complain(lock.message());
        *status = lock.error() == ETIMEDOUT ? kExitLockBusy : kExitNoLock;
        return std::nullopt;
    }
    return std::move(*lock);
}

// What a call of an operation the plug-in lacks is told: the operations it has.
std::string unknownOperation(const PluginDescriptor& plugin, const std::string& name) {
    std::string message = "the plug-in has no operation \"" + name + "\"; it has";
    for (std::size_t index = 0; index < plugin.operationCount; ++index) {
        message += (index == 0 ? " " : ", ") + std::string(plugin.operations[index].name);
    }
    return message;
}

// Loads the plug-in and runs the call in this process, under the host lock.
int runInProcess(const Command& command) {
    setDefaultPostgresEnvironment();
    // Before the module is even loaded, so that everything the plug-in logs also reaches
    // whoever runs the host.
    openlog("velnor", (command.quiet ? 0 : LOG_PERROR) | LOG_PID, LOG_DAEMON);

    support::Result<std::unique_ptr<PluginModule>> module =
        PluginModule::open(pluginPathFor(command));
    if (!module) {
        complain(module.message());
        return kExitUnavailable;
    }
    const PluginDescriptor& plugin = (*module)->descriptor();
    const HostOperation* operation = findOperation(plugin, command.operation);
    if (operation == nullptr) {
        return usageError(unknownOperation(plugin, command.operation));
    }
    int status = kExitNormal;
    std::optional<OperationArgument> argument = argumentFor(command, operation->style, &status);
    if (!argument) {
        return status;
    }
    std::optional<HostLock> lock = takeHostLock(command, &status);
    if (!lock) {
        return status;
    }
    // The class hook runs once, before the first call, as the daemon runs it once.
    bool initialized = false;
    Call call = [&plugin, &initialized](
                    const std::string& name,
                    const OperationArgument& argument) -> support::Result<Outcome> {
        const HostOperation* operation = findOperation(plugin, name);
        if (operation == nullptr || !argumentFitsStyle(operation->style, argument)) {
            return support::Failure{EINVAL, "the plug-in cannot answer " + name};
        }
        if (!std::exchange(initialized, true)) {
            return runOperation(plugin, *operation, argument);
        }
        return callWithNewHandler(plugin, *operation, argument);
    };
    return conclude(command, *argument, call);
}

// The command line parsed again on this side: nothing C++ is handed over from the program.
int runCommandLine(int argc, char** argv) {
    std::vector<std::string_view> arguments(argv + 1, argv + argc);
    support::Result<Command> parsed = parseCommandLine(arguments);
    if (!parsed) {
        return usageError(parsed.message());
    }
    return runInProcess(*parsed);
}

}  // namespace
}  // namespace velnor::host

// Whatever is thrown in here is caught in here: it must not unwind into the program, whose C++
// runtime is another.
extern "C" VELNOR_EXPORT int velnor_run_direct(int argc, char** argv) {
    static_assert(std::is_same_v<decltype(&velnor_run_direct), velnor::host::DirectEntry>);
    try {
        return velnor::host::runCommandLine(argc, argv);
    } catch (const std::exception& error) {
        velnor::host::complain(std::string("could not run the command in this process: ") +
                               error.what());
    } catch (...) {
        velnor::host::complain("could not run the command in this process: an unknown exception");
    }
    return velnor::host::kExitUnavailable;
}
