// velnor: loads a service plug-in and runs one of its operations, as the server-management
// daemon would, and prints what it answered.
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

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
    std::string error;
    if (const RawArgument* raw = std::get_if<RawArgument>(&command.argument)) {
        if (operation.style == OperationStyle::Request) {
            std::optional<PlistDictionary> request = readRequest(raw->text, &error);
            if (!request) {
                complain(error);
                *status = kExitBadRequest;
                return std::nullopt;
            }
            return OperationArgument(std::move(*request));
        }
        std::optional<OperationArgument> argument =
            interpretRawArgument(operation.style, *raw, &error);
        if (!argument) {
            *status = usageError(error);
        }
        return argument;
    }
    if (!argumentFitsStyle(operation.style, command.argument)) {
        complain("the plug-in's " + command.operation + " is a " + styleName(operation.style) +
                 " operation, which this command cannot call");
        *status = kExitUnavailable;
        return std::nullopt;
    }
    return command.argument;
}

// Runs the operation under the host lock; nothing when the lock cannot be had.
std::optional<Outcome> runLocked(const PluginModule& module, const HostOperation& operation,
                                 const OperationArgument& argument) {
    std::string error;
    std::optional<HostLock> lock =
        HostLock::acquire(hostLockPath(std::getenv("VELNOR_LOCK_FILE")), &error);
    if (!lock) {
        complain(error);
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
    setenv("PGHOST", kDefaultPostgresSocketFolder, /*overwrite=*/0);
    // Before the module is even loaded, so that everything the plug-in logs also reaches
    // whoever runs the host.
    openlog("velnor", LOG_PERROR | LOG_PID, LOG_DAEMON);

    std::string error;
    std::unique_ptr<PluginModule> module = PluginModule::open(pluginPathFor(command), &error);
    if (!module) {
        complain(error);
        return kExitUnavailable;
    }
    const HostOperation* operation = findOperation(module->descriptor(), command.operation);
    if (operation == nullptr) {
        return usageError("the plug-in has no operation \"" + command.operation + "\"");
    }
    int status = kExitNormal;
    std::optional<OperationArgument> argument = argumentFor(command, *operation, &status);
    if (!argument) {
        return status;
    }
    std::optional<Outcome> outcome = runLocked(*module, *operation, *argument);
    if (!outcome) {
        return kExitNoLock;
    }
    if (!outcome->answered) {
        complain(command.operation + " ended without a response: " + outcome->failure);
        return exitStatusFor(*outcome);
    }
    if (!print(formatResponse(outcome->result, outputFormFor(command)))) {
        complain("cannot write the response to standard output");
        return kExitOutputFailed;
    }
    return exitStatusFor(*outcome);
}

}  // namespace
}  // namespace velnor::host

int main(int argc, char** argv) {
    using namespace velnor::host;
    std::vector<std::string_view> arguments(argv + 1, argv + argc);
    ParsedCommandLine parsed = parseCommandLine(arguments);
    if (!parsed.command) {
        return usageError(parsed.error);
    }
    if (parsed.command->help) {
        std::fputs(helpText().data(), stdout);
        return kExitNormal;
    }
    return run(*parsed.command);
}
