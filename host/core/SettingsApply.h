// `velnor settings --plan` and `settings --apply`: what changing settings would change and cost,
// and the change made only where a value differs as the server reads it, so that a fleet tool
// can run the same apply again and again and restart nothing the second time.
#pragma once

#include "ChangeRecord.h"
#include "CommandLine.h"
#include "Conclusion.h"

namespace velnor::host {

// Runs the command's plan or apply through call, printing the plan (and for an apply whether it
// changed anything) in the human form or as JSON; the run's exit status: 0, 1 when the server
// refuses a value (an apply then writes nothing), kExitVersionChanged when an apply finds the
// job file changed, or the status of the read or write that failed.
int concludeSettingsChange(const Command& command, const Call& call, ChangeRecord* record);

}  // namespace velnor::host
