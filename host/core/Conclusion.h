// What both ways of running a command share, in the client and in the in-process host alike:
// the operation's argument read for its style, and the run concluded once the call is made
// (the response printed, the verb's explanations, the exit status). Each way supplies only how
// one call reaches the plug-in.
#pragma once

#include <functional>
#include <optional>
#include <string>

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

// Answers what needs no plug-in: --help, a verb's --help and --version printed, `web-url` and
// `settings --check` run; nothing for a command that calls the plug-in.
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

// One call of an operation: in this process under the host lock that the run holds, or in the
// daemon. Fails with EINVAL when the plug-in cannot answer it.
using Call = std::function<support::Result<Outcome>(const std::string& operation,
                                                    const OperationArgument& argument)>;

// Runs the command's operation through call, with what the verb tells beyond its response;
// the run's exit status.
int conclude(const Command& command, const OperationArgument& argument, const Call& call);

}  // namespace velnor::host
