// Why each start and stop in one of the worker's runs happened. A run's own moves come last: a
// start's start, a stop's stop, the stop and start of a restart (try-restart, or the one that a
// settings change makes). The housekeeping runs before them, and its one move of the job is the
// log folder's one-time migration, a stop immediately followed by a start (a start alone when
// the server was stopped).
#pragma once

#include <string_view>
#include <vector>

#include "JobMoves.h"
#include "RestartLedger.h"

namespace velnor::host {

// What a run moves by itself, and for whom.
struct RunMoves {
    // Every: each move is the run's own (the jobs that run at load).
    enum class Own { Nothing, Start, Stop, Restart, Every };
    Own own = Own::Nothing;
    MoveCause cause = MoveCause::Migration;
};

// What the plug-in's operation of that name moves by itself: start, stop and try-restart for the
// operator, a settings write's restart for the settings change; nothing for the others.
RunMoves movesOfOperation(std::string_view operation);

// The cause of each of the run's starts and stops, in their order (kills are the stop
// deadline's, whichever run makes them, and are not among them). A start that found the server
// stopped is the run's own when the run is a start, even when the migration made it: the start was
// asked for, and happened.
std::vector<MoveCause> causesOf(const std::vector<JobMoveKind>& moves, const RunMoves& run);

}  // namespace velnor::host
