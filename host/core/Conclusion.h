// What both ways of running a command share, in the client and in the in-process host alike:
// the operation's argument read for its style, and the run concluded once the call is made
// (the response printed, the verb's explanations, the exit status). Each way supplies only how
// one call reaches the plug-in.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "AuditTrail.h"
#include "Caller.h"
#include "CommandLine.h"
#include "Invocation.h"
#include "PluginInterface.h"
#include "Result.h"

namespace velnor::host {

// Tells a usage error and the usage hint; the usage exit status.
int usageError(const std::string& message);

// The argument the operation is called with, or nothing with the exit status in status: the
// raw argument of `call` read as the operation's style asks, or the friendly verb's prepared
// one when the plug-in's operation takes that kind.
std::optional<OperationArgument> argumentFor(const Command& command, OperationStyle style,
                                             int* status);

// Answers what needs no plug-in: --help, a verb's --help and --version printed, `web-url`,
// `settings --check` and `history` run; nothing for a command that calls the plug-in.
std::optional<int> answerWithoutPlugin(const Command& command);

// The plug-in's operation that the command names and the argument to call it with.
struct PreparedCall {
    const HostOperation* operation;
    OperationArgument argument;
};

// The command's call, prepared against the plug-in; nothing, with the exit status in status and
// the reason told, when the plug-in lacks the operation (the usage error lists those it has) or
// the argument cannot be had.
std::optional<PreparedCall> prepareCall(const Command& command, const PluginDescriptor& plugin,
                                        int* status);

// The plug-in's operation of that name when it takes an argument of this kind; fails with EINVAL
// otherwise, as every way of calling it tells a verb's further calls.
support::Result<const HostOperation*> operationTaking(const PluginDescriptor& plugin,
                                                      const std::string& name,
                                                      const OperationArgument& argument);

// A check made under the host lock just before the plug-in is entered, so that nothing another
// host does can come between the two: a failure keeps the call from being made.
using CallGuard = std::function<support::Status()>;

// One call of an operation: in this process under the host lock that the run holds, or in the
// daemon. Fails with EINVAL when the plug-in cannot answer it, and with the guard's failure when
// the guard (empty for none) refused it.
using Call = std::function<support::Result<Outcome>(
    const std::string& operation, const OperationArgument& argument, const CallGuard& guard)>;

// Whether the plug-in's state report says the service runs.
bool serviceRuns(const Call& call);

// Tells a call that could not be made: the daemon refuses an operation the plug-in lacks, or an
// argument of another style, as the in-process host does, with a usage error; the exit status.
int tellRefusedCall(const support::Failure& failure);

// The restart ledger's figures as the host that runs the command knows them (ledgerFigures in
// RestartLedger.h): velnord's own, or the file's.
using LedgerFigures = std::function<PlistValue()>;

// Runs the command's operation through call, with what the verb tells beyond its response (and,
// for `status --details`, the ledger's figures after the report's own, when ledger is given);
// the run's exit status. A command that changes the service is recorded in trail as caller's,
// before anything of its outcome is told; when the trail cannot take the record, a caller other
// than root is refused (69) with nothing done, and root's change goes ahead.
int conclude(const Command& command, const OperationArgument& argument, const Call& call,
             const Caller& caller, const LedgerFigures& ledger = {},
             const AuditTrail& trail = AuditTrail());

}  // namespace velnor::host
