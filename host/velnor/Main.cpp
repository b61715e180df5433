// velnor: runs one operation of the service plug-in, as the server-management daemon would,
// and prints what it answered. The call goes to velnord when it answers; otherwise, or with
// --direct, the in-process host (velnor-direct.so) is loaded and runs it here. This program
// links only what the daemon's client needs, so that it starts as fast as a C program.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "CommandLine.h"
#include "Conclusion.h"
#include "ConsoleVerbs.h"
#include "ControlProtocol.h"
#include "DaemonClient.h"
#include "DirectModule.h"
#include "ExitStatus.h"

namespace velnor::host {
namespace {

// Prints one log message of the call as the in-process host's log does on standard error.
void printLogMessage(const std::string& message) {
    std::fprintf(stderr, "velnor[%d]: %s%s", static_cast<int>(getpid()), message.c_str(),
                 message.ends_with('\n') ? "" : "\n");
}

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

// The call sent to the daemon: the same checks, output and exit statuses as in-process; the
// plug-in's messages arrive while it runs. The verb's further calls each connect again.
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
    auto onLog = command.quiet ? [](const std::string&) {} : printLogMessage;
    bool first = true;
    Call call = [&](const std::string& name,
                    const OperationArgument& argument) -> support::Result<Outcome> {
        const std::optional<OperationStyle> style = styleOfPreparedArgument(argument);
        if (std::exchange(first, false)) {
            return daemon.call(name, argument, style, onLog);
        }
        std::optional<DaemonClient> again = DaemonClient::connect(kControlSocketPath);
        if (!again) {
            return support::Failure{ECONNREFUSED, "velnord no longer answers"};
        }
        return again->call(name, argument, style, onLog);
    };
    return conclude(command, *argument, call);
}

int run(const Command& command, int argc, char** argv) {
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
    return runThroughDirectModule(VELNOR_DIRECT_FROM_PROGRAM, argc, argv);
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
    if (parsed->answer) {
        std::fputs(parsed->answer->c_str(), stdout);
        return kExitNormal;
    }
    if (std::optional<int> status = runConsoleVerb(*parsed)) {
        return *status;
    }
    return run(*parsed, argc, argv);
}
