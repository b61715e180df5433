// The host's exit statuses: one per way a run can end, so scripts can tell them apart.
#pragma once

#include <sysexits.h>

namespace velnor::host {

enum ExitStatus : int {
    kExitNormal = 0,                    // a normal response, or none
    kExitErrorResponse = 1,             // a response dictionary holding "error"
    kExitWithoutResponse = 2,           // the operation threw instead of answering
    kExitStopped = 3,                   // status: the service is not running
    kExitVersionChanged = 4,            // settings --apply: the job file changed since the plan
    kExitUsage = EX_USAGE,              // the command line is not one the host understands
    kExitBadRequest = EX_DATAERR,       // the request file is not a property-list dictionary
    kExitUnavailable = EX_UNAVAILABLE,  // the plug-in cannot be loaded or used
    kExitNoLock = EX_CANTCREAT,         // the host lock cannot be created or taken
    kExitLockBusy = EX_TEMPFAIL,        // another host held the lock for all of --wait
    kExitNotRoot = EX_NOPERM,           // not allowed: only root, or an account polkit lets, may
    kExitOutputFailed = EX_IOERR,       // the response could not be written out
};

}  // namespace velnor::host
