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
#include "Result.h"

namespace velnor::host {

// Tells a failure on standard error as "velnor: MESSAGE".
void complain(const std::string& message);

// Tells a usage error and the usage hint; the usage exit status.
int usageError(const std::string& message);

// The argument the operation is called with, or nothing with the exit status in status: the
// raw argument of `call` read as the operation's style asks, or the friendly verb's prepared
// one when the plug-in's operation takes that kind.
std::optional<OperationArgument> argumentFor(const Command& command, OperationStyle style,
                                             int* status);

// One call of an operation: in this process under the host lock that the run holds, or in the
// daemon. Fails with EINVAL when the plug-in cannot answer it.
using Call = std::function<support::Result<Outcome>(const std::string& operation,
                                                    const OperationArgument& argument)>;

// Runs the command's operation through call, with what the verb tells beyond its response;
// the run's exit status.
int conclude(const Command& command, const OperationArgument& argument, const Call& call);

}  // namespace velnor::host
