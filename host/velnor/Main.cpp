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
#include "ExitStatus.h"
#include "HostLock.h"
#include "Invocation.h"
#include "Output.h"
#include "PluginLoader.h"
#include "RequestFile.h"

namespace velnor::host {
namespace {

// Where the platform's libpq looks for the server's socket when nothing says otherwise; the
// Linux libpq has another default, so the host makes it explicit for the plug-in's probe.
constexpr const char* kDefaultPostgresSocketFolder = "/var/pgsql_socket";
// Seconds the probe waits for the server to answer: a socket that takes connections and never
// answers would otherwise hold the call, and the host lock, for ever.
constexpr const char* kDefaultPostgresConnectTimeout = "5";

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

const char* styleName(OperationStyle style) {
    switch (style) {
        case OperationStyle::Request:
            return "request";
        case OperationStyle::Service:
            return "service";
        case OperationStyle::Idle:
            return "idle";
    }
    return "unknown";
}

// The argument the operation is called with, or nothing with the exit status in status: the
// raw argument of `call` read as the operation's style asks, or the friendly verb's prepared
// one when the plug-in's operation takes that kind.
std::optional<OperationArgument> argumentFor(const Command& command, const HostOperation& operation,
                                             int* status) {
    if (const RawArgument* raw = std::get_if<RawArgument>(&command.argument)) {
        if (operation.style == OperationStyle::Request) {
            support::Result<PlistDictionary> request = readRequest(raw->text);
            if (!request) {
                complain(request.message());
                *status = kExitBadRequest;
                return std::nullopt;
            }
            return OperationArgument(std::move(*request));
        }
        support::Result<OperationArgument> argument = interpretRawArgument(operation.style, *raw);
        if (!argument) {
            *status = usageError(argument.message());
            return std::nullopt;
        }
        return std::move(*argument);
    }
    if (!argumentFitsStyle(operation.style, command.argument)) {
        complain("the plug-in's " + command.operation + " is a " + styleName(operation.style) +
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

int run(const Command& command) {
    // The operations create folders for the service account, rewrite the job file and signal
    // the server: nothing of it is tried, and no lock taken, for anyone else.
    if (geteuid() != 0) {
        complain("must be run as root");
        return kExitNotRoot;
    }
    setenv("PGHOST", kDefaultPostgresSocketFolder, /*overwrite=*/0);
    setenv("PGCONNECT_TIMEOUT", kDefaultPostgresConnectTimeout, /*overwrite=*/0);
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
    std::optional<OperationArgument> argument = argumentFor(command, *operation, &status);
    if (!argument) {
        return status;
    }
    std::optional<Outcome> outcome = runLocked(command, **module, *operation, *argument, &status);
    if (!outcome) {
        return status;
    }
    if (!outcome->answered) {
        complain(command.operation + " ended without a response: " + outcome->failure);
        return exitStatusFor(*outcome);
    }
    if (!print(formatResponse(outcome->result, outputFormFor(command)))) {
        complain(
            velnor::support::couldNot("write the response to", "standard output", errno).message);
        return kExitOutputFailed;
    }
    return exitStatusFor(*outcome);
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
