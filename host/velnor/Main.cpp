// velnor: loads a service plug-in and runs one of its operations, as the server-management
// daemon would, and prints what it answered.
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "CommandLine.h"
#include "ConsoleVerbs.h"
#include "ControlProtocol.h"
#include "DaemonClient.h"
#include "ExitStatus.h"
#include "Explanations.h"
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
    std::fputs(usageHint().data(), stderr);
    return kExitUsage;
}

std::string pluginPathFor(const Command& command) {
    return choosePluginPath(command.pluginPath, std::getenv("VELNOR_PLUGIN"),
                            VELNOR_PLUGIN_FROM_PROGRAM);
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

// One call of an operation: in this process under the host lock that the run holds, or in the
// daemon.
using Call = std::function<support::Result<Outcome>(const std::string& operation,
                                                    const OperationArgument& argument)>;

bool print(const std::string& text) {
    bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    return std::fflush(stdout) == 0 && written;
}

const std::string* textAt(const PlistValue& value, std::string_view key) {
    const PlistDictionary* dictionary = value.asDictionary();
    const PlistValue* entry = dictionary != nullptr ? dictionary->find(key) : nullptr;
    return entry != nullptr ? entry->asString() : nullptr;
}

// The exit status of the run: the outcome's, but a status report of a stopped service exits
// 3 as the status of every service manager does.
int exitStatusOf(const Command& command, const Outcome& outcome) {
    int status = exitStatusFor(outcome);
    const std::string* state = textAt(outcome.result, "state");
    if (command.verb == "status" && status == kExitNormal && state && *state == "STOPPED") {
        return kExitStopped;
    }
    return status;
}

std::string responseText(const Command& command, const Outcome& outcome) {
    if (command.json) {
        return formatResponse(outcome.result, OutputForm::Json);
    }
    if (command.human) {
        return formatResponse(humanView(outcome.result), OutputForm::Human);
    }
    return formatResponse(outcome.result, OutputForm::PropertyList);
}

// A failure of the run told: on standard error in words, and as a JSON object with --json.
// The raw `call` still prints an error response as it came.
bool tellFailure(const Command& command, const Outcome& outcome, int status) {
    if (!outcome.answered) {
        complain(command.operation + " ended without a response: " + outcome.failure);
    } else if (command.human) {
        const std::string* error = textAt(outcome.result, "error");
        complain(failureSentence(command.verb, error ? *error : "an error without a text"));
    } else {
        return print(responseText(command, outcome));
    }
    if (!command.json) {
        return true;
    }
    return print(formatResponse(PlistValue(failureObject(command.verb, command.operation,
                                                         outcome.result, outcome.failure, status)),
                                OutputForm::Json));
}

// What came of the call, printed; its exit status.
int report(const Command& command, const Outcome& outcome) {
    int status = exitStatusOf(command, outcome);
    bool printed = true;
    if (status == kExitErrorResponse || status == kExitWithoutResponse) {
        printed = tellFailure(command, outcome, status);
    } else if (!command.quiet) {
        printed = print(responseText(command, outcome));
    }
    if (!printed) {
        complain(
            velnor::support::couldNot("write the response to", "standard output", errno).message);
        return kExitOutputFailed;
    }
    return status;
}

// Where the service's log is now, and its size; nothing when the plug-in names none or a
// relative one (in the data folder), or it cannot be read safely.
std::optional<LogMark> markServiceLog(const Call& call) {
    support::Result<Outcome> report = call("getLogPathsWithRequest", PlistDictionary());
    const std::string* path = report ? textAt(report->result, "log") : nullptr;
    if (path == nullptr || !path->starts_with('/')) {
        return std::nullopt;
    }
    support::Result<LogMark> mark = markLog(*path);
    if (!mark) {
        complain(mark.message());
        return std::nullopt;
    }
    return *mark;
}

// The lines the server wrote to its log since the mark, on standard error: why a start failed.
// The start may have moved the log to its new folder, so the path is asked again.
void showLogSince(const Call& call, LogMark mark) {
    constexpr std::size_t kShownBytes = 16 * 1024;
    std::optional<LogMark> now = markServiceLog(call);
    if (now && now->path != mark.path) {
        mark = LogMark{now->path, 0};
    }
    support::Result<std::string> lines = appendedSince(mark, kShownBytes);
    if (!lines) {
        complain(lines.message());
    } else if (lines->empty()) {
        complain("the server wrote nothing to its log \"" + mark.path + "\" since the start");
    } else {
        complain("the server's log \"" + mark.path + "\" since the start:");
        std::fputs(lines->c_str(), stderr);
    }
}

// After a stop that answered, a service still running is held by clients inside a
// transaction: the stop ends idle clients only, and the server waits for the others.
void explainHeldStop(const Call& call) {
    support::Result<Outcome> state = call("getStateWithRequest", PlistDictionary());
    const std::string* now = state ? textAt(state->result, "state") : nullptr;
    if (now == nullptr || *now != "RUNNING") {
        return;
    }
    // A server that is just exiting still counts as running, with no client left to name.
    std::vector<ClientTitle> clients = serverClients();
    if (clients.empty()) {
        return;
    }
    complain("the service is still running: the server shuts down once these clients end");
    for (const ClientTitle& client : clients) {
        std::fprintf(stderr, "  pid %d  database %s  user %s  %s\n", static_cast<int>(client.pid),
                     client.database.c_str(), client.user.c_str(), client.state.c_str());
    }
}

// Runs the command's operation through call, with what the verb tells beyond its response.
int conclude(const Command& command, const OperationArgument& argument, const Call& call) {
    std::optional<LogMark> mark;
    if (command.verb == "start" || command.verb == "restart") {
        mark = markServiceLog(call);
    }
    support::Result<Outcome> outcome = call(command.operation, argument);
    if (!outcome) {
        // The daemon refuses an operation the plug-in lacks, or an argument of another style,
        // as the in-process host does: a usage error.
        return outcome.error() == EINVAL ? usageError(outcome.message())
                                         : (complain(outcome.message()), kExitUnavailable);
    }
    int status = report(command, *outcome);
    if (status == kExitErrorResponse && mark) {
        showLogSince(call, *mark);
    }
    if (status == kExitNormal && command.verb == "stop" && !command.quiet) {
        explainHeldStop(call);
    }
    return status;
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
    if (parsed->answer) {
        std::fputs(parsed->answer->c_str(), stdout);
        return kExitNormal;
    }
    if (std::optional<int> status = runConsoleVerb(*parsed)) {
        return *status;
    }
    return run(*parsed);
}
