// One run of a plug-in operation: the class hook, a new handler, the call itself, and what
// came of it, with whatever the plug-in threw caught and named instead of ending the host.
#pragma once

#include <optional>
#include <string>

#include "CommandLine.h"
#include "PlistValue.h"
#include "PluginInterface.h"

namespace velnor::host {

struct Outcome {
    // False when the plug-in threw before it answered.
    bool answered = false;
    // The response dictionary, the idle result as an integer, or absent.
    PlistValue result;
    // When it threw: the demangled type of what was thrown and its message,
    // "std::out_of_range: vector::_M_range_check: ...".
    std::string failure;
};

// True when the argument is of the kind that an operation of this style takes: a request
// dictionary, a variant (string or absent) or a count.
bool argumentFitsStyle(OperationStyle style, const OperationArgument& argument);

// Names the exception being handled, as "TYPE: WHAT" with the type's name as the source spells
// it; only to be called from inside a catch block.
std::string describeCurrentException();

// Runs the descriptor's class hook; what it threw, named as in Outcome::failure, or nothing.
std::optional<std::string> initializePlugin(const PluginDescriptor& plugin);

// Creates a handler and calls the operation with the argument, which must fit the operation's
// style; the class hook has run already. Anything thrown ends in an outcome that did not answer.
Outcome callWithNewHandler(const PluginDescriptor& plugin, const HostOperation& operation,
                           const OperationArgument& argument);

// Runs the descriptor's initialize, creates a handler and calls the operation with the
// argument, which must fit the operation's style. Anything thrown on the way, std::exception
// or not, ends in an outcome that did not answer.
Outcome runOperation(const PluginDescriptor& plugin, const HostOperation& operation,
                     const OperationArgument& argument);

// The exit status for an outcome: 2 when it did not answer, 1 for a response dictionary that
// holds "error", 0 otherwise.
int exitStatusFor(const Outcome& outcome);

}  // namespace velnor::host
