// velnor: loads a service plug-in and runs one of its operations, as the server-management
// daemon would, and prints what it answered.
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "ControlProtocol.h"
#include "DaemonClient.h"
#include "ExitStatus.h"
#include "HostEnvironment.h"
#include "HostLock.h"
#include "Invocation.h"
#include "Output.h"
#include "PluginLoader.h"
#include "RequestFile.h"

namespace velnor::host {
namespace {

void complain(const std::string& message) {
    std::fprintf(stderr, "velnor: %s\n", message.c_str());
}

int usageError(const std::string& message) {
    complain(message);
    std::fputs(usageText().data(), stderr);
    return kExitUsage;
}

bool fileExists(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0;
}

std::string pluginPathFor(const Command& command) {
    return choosePluginPath(command.pluginPath, std::getenv("VELNOR_PLUGIN"),
                            VELNOR_INSTALLED_PLUGIN, VELNOR_BUILD_TREE_PLUGIN, fileExists);
}

// The argument the operation is called with, or nothing with the exit status in status: the
// raw argument of `call` read as the operation's style asks, or the friendly verb's prepared
// one when the plug-in's operation takes that kind.
std::optional<OperationArgument> argumentFor(const Command& command, OperationStyle style,
                                             int* status) {
    if (const RawArgument* raw = std::get_if<RawArgument>(&command.argument)) {
        if (style == OperationStyle::Request) {
            support::Result<PlistDictionary> request = readRequest(raw->text);
            if (!request) {
                complain(request.message());
                *status = kExitBadRequest;
                return std::nullopt;
            }
            return OperationArgument(std::move(*request));
        }
        support::Result<OperationArgument> argument = interpretRawArgument(style, *raw);
        if (!argument) {
            *status = usageError(argument.message());
            return std::nullopt;
        }
        return std::move(*argument);
    }
    if (!argumentFitsStyle(style, command.argument)) {
        complain("the plug-in's " + command.operation + " is a " + styleName(style) +
                 " operation, which this command cannot call");
        *status = kExitUnavailable;
        return std::nullopt;
    }
    return command.argument;
}

// Runs the operation under the host lock; nothing, with the exit status in status, when the
// lock cannot be had.
std::optional<Outcome> runLocked(const Command& command, const PluginModule& module,
                                 const HostOperation& operation, const OperationArgument& argument,
                                 int* status) {
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
    return runOperation(module.descriptor(), operation, argument);
}

OutputForm outputFormFor(const Command& command) {
    if (command.json) {
        return OutputForm::Json;
    }
    return command.human ? OutputForm::Human : OutputForm::PropertyList;
}

bool print(const std::string& text) {
    bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    return std::fflush(stdout) == 0 && written;
}

// What came of the call, printed; its exit status.
int report(const Command& command, const Outcome& outcome) {
    if (!outcome.answered) {
        complain(command.operation + " ended without a response: " + outcome.failure);
        return exitStatusFor(outcome);
    }
    if (!print(formatResponse(outcome.result, outputFormFor(command)))) {
        complain(
            velnor::support::couldNot("write the response to", "standard output", errno).message);
        return kExitOutputFailed;
    }
    return exitStatusFor(outcome);
}

// Loads the plug-in and runs the call in this process, under the host lock.
int runInProcess(const Command& command) {
    setDefaultPostgresEnvironment();
    // Before the module is even loaded, so that everything the plug-in logs also reaches
    // whoever runs the host.
    openlog("velnor", LOG_PERROR | LOG_PID, LOG_DAEMON);

    support::Result<std::unique_ptr<PluginModule>> module =
        PluginModule::open(pluginPathFor(command));
    if (!module) {
        complain(module.message());
        return kExitUnavailable;
    }
    const HostOperation* operation = findOperation((*module)->descriptor(), command.operation);
    if (operation == nullptr) {
        return usageError("the plug-in has no operation \"" + command.operation + "\"");
    }
    int status = kExitNormal;
    std::optional<OperationArgument> argument = argumentFor(command, operation->style, &status);
    if (!argument) {
        return status;
    }
    std::optional<Outcome> outcome = runLocked(command, **module, *operation, *argument, &status);
    if (!outcome) {
        return status;
    }
    return report(command, *outcome);
}

// Prints one log message of the call as the in-process host's log does on standard error.
void printLogMessage(const std::string& message) {
    std::fprintf(stderr, "velnor[%d]: %s%s", static_cast<int>(getpid()), message.c_str(),
                 message.ends_with('\n') ? "" : "\n");
}

// The call sent to the daemon: the same checks, output and exit statuses as in-process; the
// plug-in's messages arrive while it runs.
// The style that a friendly verb's prepared argument is for; nothing for `call`'s raw argument,
// whose meaning depends on the operation's style.
std::optional<OperationStyle> styleOfPreparedArgument(const OperationArgument& argument) {
    if (std::holds_alternative<PlistDictionary>(argument)) {
        return OperationStyle::Request;
    }
    if (std::holds_alternative<PlistValue>(argument)) {
        return OperationStyle::Service;
    }
    if (std::holds_alternative<std::int32_t>(argument)) {
        return OperationStyle::Idle;
    }
    return std::nullopt;
}

int runThroughDaemon(const Command& command, DaemonClient& daemon) {
    // A friendly verb sends its call at once and the daemon checks the style: one round trip.
    std::optional<OperationStyle> expected = styleOfPreparedArgument(command.argument);
    std::optional<OperationArgument> argument = command.argument;
    if (!expected) {
        support::Result<OperationStyle> style = daemon.styleOf(command.operation);
        if (!style) {
            return style.error() == EINVAL ? usageError(style.message())
                                           : (complain(style.message()), kExitUnavailable);
        }
        int status = kExitNormal;
        argument = argumentFor(command, *style, &status);
        if (!argument) {
            return status;
        }
    }
    support::Result<Outcome> outcome =
        daemon.call(command.operation, *argument, expected, printLogMessage);
    if (!outcome) {
        return outcome.error() == EINVAL ? usageError(outcome.message())
                                         : (complain(outcome.message()), kExitUnavailable);
    }
    return report(command, *outcome);
}

int run(const Command& command) {
    // The operations create folders for the service account, rewrite the job file and signal
    // the server: nothing of it is tried, and no lock taken, for anyone else.
    if (geteuid() != 0) {
        complain("must be run as root");
        return kExitNotRoot;
    }
    if (!command.direct) {
        if (std::optional<DaemonClient> daemon = DaemonClient::connect(kControlSocketPath)) {
            return runThroughDaemon(command, *daemon);
        }
    }
    return runInProcess(command);
}

}  // namespace
}  // namespace velnor::host

int main(int argc, char** argv) {
    using namespace velnor::host;
    std::vector<std::string_view> arguments(argv + 1, argv + argc);
    velnor::support::Result<Command> parsed = parseCommandLine(arguments);
    if (!parsed) {
        return usageError(parsed.message());
    }
    if (parsed->help) {
        std::fputs(helpText().data(), stdout);
        return kExitNormal;
    }
    return run(*parsed);
}
