// The audit trail's record of one request that changes the service, kept while the request runs
// and appended once its outcome is known, before whoever asked is told it. The command line of
// both hosts and the console's actions record their runs through it.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "AuditTrail.h"
#include "Caller.h"
#include "CommandLine.h"
#include "Invocation.h"
#include "Result.h"

namespace velnor::host {

// True for the plug-in's operations that change the service or its files: the start, stop and
// recycle, the settings write, the setup, and the housekeeping (doIdleAtCount), which may create
// folders and rewrite the job file; the host cannot know beforehand whether it will, so every
// housekeeping that is asked for is recorded. The daemon's own idle ticks are asked by no one
// and are not.
bool changesService(std::string_view operation);

// The argument as the trail records it: the request, the variant, or the count; absent for an
// absent variant and for a raw argument not read yet.
PlistValue recordedArgument(const OperationArgument& argument);

// The settings that a write's request asks for, each with its stored value from a settings read's
// response (nothing when it was not set, or the read failed); those asked for with the value
// they have already are left out. A value that is not a string is shown as its JSON.
std::vector<SettingChange> settingChanges(const PlistValue& readResponse,
                                          const PlistDictionary& writeRequest);

class ChangeRecord {
  public:
    // A record of verb asked by caller with argument, in trail. Its time is now, and the time
    // the request took runs from here.
    ChangeRecord(const Caller& caller, std::string verb, PlistValue argument,
                 AuditTrail trail = AuditTrail());

    // Whether the change may go ahead: always for root, whose change goes ahead even when the
    // trail fails; for any other caller, only when the trail can take the record now, so that
    // no change of theirs goes unrecorded. The failure says why not.
    support::Status admit() const;

    void setChanges(std::vector<SettingChange> changes) { record_.changes = std::move(changes); }

    // Adds operation to those the request ran.
    void ran(std::string_view operation) { record_.operations.emplace_back(operation); }

    // Appends the record with what came of the last operation run, and tells the system log.
    // Fails when the trail could not take it; the failure is logged at LOG_ERR already, and the
    // caller tells whoever asked.
    support::Status finish(const support::Result<Outcome>& outcome);

  private:
    AuditRecord record_;
    AuditTrail trail_;
    std::chrono::steady_clock::time_point began_;
};

// Appends record, when there is one, once operation has answered (or could not be made), before
// whoever asked is told anything of it. A record that the trail could not take is told as well:
// for root, whose change went ahead all the same, and for another caller whose trail failed after
// it was found writable.
void finishRecord(ChangeRecord* record, const std::string& operation,
                  const support::Result<Outcome>& outcome);

}  // namespace velnor::host
