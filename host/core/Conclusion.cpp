#include "Conclusion.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>
#include <vector>

#include "AuditHistory.h"
#include "ChangeRecord.h"
#include "ConsoleVerbs.h"
#include "ControlProtocol.h"
#include "ExitStatus.h"
#include "Explanations.h"
#include "Output.h"
#include "PluginLoader.h"
#include "RequestFile.h"
#include "SettingsApply.h"
#include "Terminal.h"

namespace velnor::host {
namespace {

bool print(const std::string& text) {
    return terminal().toOut(text);
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
    support::Result<Outcome> report = call("getLogPathsWithRequest", PlistDictionary(), {});
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
        (void)terminal().toErr(*lines);
    }
}

// A stop answers once the server refuses connections; the idle clients it ended, and then the
// server, exit a moment later. A service that still runs once this has passed is held.
constexpr std::chrono::milliseconds kStopSettle{2000};
// How often the state is asked meanwhile.
constexpr std::chrono::milliseconds kStopSettlePoll{100};

// Whether the service still runs after the stop's ending clients and server have had
// kStopSettle to exit.
bool runsOnceSettled(const Call& call) {
    const auto until = std::chrono::steady_clock::now() + kStopSettle;
    while (serviceRuns(call)) {
        if (std::chrono::steady_clock::now() >= until) {
            return true;
        }
        std::this_thread::sleep_for(kStopSettlePoll);
    }
    return false;
}

// After a stop that answered, a service still running is held by clients inside a
// transaction: the stop ends idle clients only, and the server waits for the others.
void explainHeldStop(const Call& call) {
    if (!runsOnceSettled(call)) {
        return;
    }
    // A server that is just exiting still counts as running, with no client left to name.
    std::vector<ClientTitle> clients = serverClients();
    if (clients.empty()) {
        return;
    }
    complain("the service is still running: the server shuts down once these clients end");
    for (const ClientTitle& client : clients) {
        (void)terminal().toErr("  pid " + std::to_string(client.pid) + "  database " +
                               client.database + "  user " + client.user + "  " + client.state +
                               "\n");
    }
}

}  // namespace

bool serviceRuns(const Call& call) {
    support::Result<Outcome> state = call("getStateWithRequest", PlistDictionary(), {});
    const std::string* now = state ? textAt(state->result, "state") : nullptr;
    return now != nullptr && *now == "RUNNING";
}

int tellRefusedCall(const support::Failure& failure) {
    return failure.error == EINVAL ? usageError(failure.message)
                                   : (complain(failure.message), kExitUnavailable);
}

int usageError(const std::string& message) {
    complain(message);
    (void)terminal().toErr(usageHint());
    return kExitUsage;
}

std::optional<int> answerWithoutPlugin(const Command& command) {
    if (command.answer) {
        return print(*command.answer) ? kExitNormal : kExitOutputFailed;
    }
    if (command.verb == "history") {
        return runHistory(command);
    }
    return runConsoleVerb(command);
}

support::Result<const HostOperation*> operationTaking(const PluginDescriptor& plugin,
                                                      const std::string& name,
                                                      const OperationArgument& argument) {
    const HostOperation* operation = findOperation(plugin, name);
    if (operation == nullptr || !argumentFitsStyle(operation->style, argument)) {
        return support::Failure{EINVAL, "the plug-in cannot answer " + name};
    }
    return operation;
}

std::optional<PreparedCall> prepareCall(const Command& command, const PluginDescriptor& plugin,
                                        int* status) {
    const HostOperation* operation = findOperation(plugin, command.operation);
    if (operation == nullptr) {
        std::string message = "the plug-in has no operation \"" + command.operation + "\"; it has";
        for (std::size_t index = 0; index < plugin.operationCount; ++index) {
            message += (index == 0 ? " " : ", ") + std::string(plugin.operations[index].name);
        }
        *status = usageError(message);
        return std::nullopt;
    }
    std::optional<OperationArgument> argument = argumentFor(command, operation->style, status);
    if (!argument) {
        return std::nullopt;
    }
    return PreparedCall{operation, std::move(*argument)};
}

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
            return std::optional<OperationArgument>(
                std::in_place, std::in_place_type<PlistDictionary>, std::move(*request));
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

namespace {

// The record of the run when it changes something; nothing for a read.
std::optional<ChangeRecord> recordFor(const Command& command, const OperationArgument& argument,
                                      const Caller& caller, const AuditTrail& trail) {
    const bool plansOnly = command.settingsChange && !command.settingsChange->apply;
    if (plansOnly ||
        (serviceVerbOperations(command.verb).empty() && !changesService(command.operation))) {
        return std::nullopt;
    }
    return std::optional<ChangeRecord>(std::in_place, caller,
                                       command.verb.empty() ? "call" : command.verb,
                                       recordedArgument(argument), trail);
}

// True when request carries a configuration that is a dictionary of text values.
bool isSettingsWrite(const PlistDictionary& request) {
    const PlistValue* configuration = request.find("configuration");
    const PlistDictionary* settings = configuration ? configuration->asDictionary() : nullptr;
    if (settings == nullptr || settings->empty()) {
        return false;
    }
    return std::all_of(settings->begin(), settings->end(),
                       [](const auto& setting) { return setting.second.asString() != nullptr; });
}

// A settings write records each setting it changes with the value stored before, read through
// the plug-in's own settings read just ahead of the write.
//
// The read runs the plug-in's housekeeping, which a request the plug-in would refuse must never
// set off: only a write whose configuration is a dictionary of text, as the plug-in takes it, is
// read for; any other is refused whole by the write, and its record shows that refusal.
void noteSettingChanges(ChangeRecord& record, const Command& command,
                        const OperationArgument& argument, const Call& call) {
    const PlistDictionary* request = std::get_if<PlistDictionary>(&argument);
    if (command.operation != "writeSettingsWithRequest" || request == nullptr ||
        !isSettingsWrite(*request)) {
        return;
    }
    support::Result<Outcome> stored = call("readSettingsWithRequest", PlistDictionary(), {});
    record.setChanges(settingChanges(stored ? stored->result : PlistValue(), *request));
}

// Runs the operations that come before the verb's own (a restart's stop). The exit status when
// one of them failed and was told; the verb then goes no further, and its record ends there.
std::optional<int> runPrecedingOperations(const Command& command, const Call& call,
                                          ChangeRecord* record) {
    std::span<const std::string_view> operations = serviceVerbOperations(command.verb);
    for (std::size_t index = 0; index + 1 < operations.size(); ++index) {
        Command step = command;
        step.operation = std::string(operations[index]);
        support::Result<Outcome> outcome = call(step.operation, PlistValue(), {});
        const int status = outcome ? exitStatusOf(step, *outcome) : kExitUnavailable;
        if (status != kExitNormal) {
            finishRecord(record, step.operation, outcome);
        } else if (record != nullptr) {
            record->ran(step.operation);
        }
        if (!outcome) {
            return tellRefusedCall(outcome.failure());
        }
        if (status != kExitNormal) {
            return tellFailure(step, *outcome, status) ? status : kExitOutputFailed;
        }
    }
    return std::nullopt;
}

// True for `status --details`, whose report the ledger's figures follow.
bool showsLedger(const Command& command, const OperationArgument& argument) {
    const PlistDictionary* request = std::get_if<PlistDictionary>(&argument);
    return command.verb == "status" && request != nullptr && request->contains("variant");
}

// The report with the ledger's figures under "ledger", after the plug-in's own fields.
void addLedgerFigures(Outcome& outcome, const LedgerFigures& ledger) {
    const PlistDictionary* report = outcome.result.asDictionary();
    if (report == nullptr || report->contains("error")) {
        return;
    }
    PlistDictionary shown = *report;
    shown.set("ledger", ledger());
    outcome.result = PlistValue(std::move(shown));
}

}  // namespace

// Runs the command's operation through call, with what the verb tells beyond its response.
int conclude(const Command& command, const OperationArgument& argument, const Call& call,
             const Caller& caller, const LedgerFigures& ledger, const AuditTrail& trail) {
    std::optional<ChangeRecord> record = recordFor(command, argument, caller, trail);
    if (record) {
        if (support::Status admitted = record->admit(); !admitted) {
            complain(admitted.message());
            return kExitUnavailable;
        }
        if (!command.settingsChange) {
            noteSettingChanges(*record, command, argument, call);
        }
    }
    ChangeRecord* recording = record ? &*record : nullptr;
    if (command.settingsChange) {
        return concludeSettingsChange(command, call, recording);
    }
    if (std::optional<int> status = runPrecedingOperations(command, call, recording)) {
        return *status;
    }
    std::optional<LogMark> mark;
    if (command.verb == "start" || command.verb == "restart") {
        mark = markServiceLog(call);
    }
    support::Result<Outcome> outcome = call(command.operation, argument, {});
    finishRecord(recording, command.operation, outcome);
    if (!outcome) {
        return tellRefusedCall(outcome.failure());
    }
    if (ledger && showsLedger(command, argument)) {
        addLedgerFigures(*outcome, ledger);
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

}  // namespace velnor::host
