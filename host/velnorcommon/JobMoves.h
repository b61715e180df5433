// Who hears of each change that job control makes to a job: a long-running host keeps a ledger
// of the service's starts and stops, whoever asked for them (a plug-in's operation, the host's
// own jobs at load, a stop's deadline).
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "Export.h"

namespace velnor {

enum class JobMoveKind {
    Start,  // a job that did not run was asked to run
    Stop,   // a running job was sent SIGTERM
    Kill,   // a job past its ExitTimeOut was sent SIGKILL
};

struct JobMove {
    std::string label;
    JobMoveKind kind;
    // False when the job control could not do it (the reason is in the log).
    bool done;
    // When it was asked for.
    std::chrono::steady_clock::time_point began;
};

using JobMoveWatcher = std::function<void(const JobMove& move)>;

// Makes watcher the receiver of every later move, told on the thread that made it, once it is
// done; an empty watcher turns the telling off. A start of a job that already runs, or a stop
// of one that does not, moves nothing and is not told. Set it before any thread moves a job:
// it is read without a lock.
VELNOR_EXPORT void watchJobMoves(JobMoveWatcher watcher);

// Tells the watcher, if any; for job control's own use.
void tellJobMove(const JobMove& move);

// True while a watcher listens: the moves are then looked at closer (is the job running?).
bool jobMovesWatched();

}  // namespace velnor
