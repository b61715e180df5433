#include "MoveCauses.h"

namespace velnor::host {

RunMoves movesOfOperation(std::string_view operation) {
    if (operation == "startServiceWithVariant") {
        return {RunMoves::Own::Start, MoveCause::Operator};
    }
    if (operation == "stopServiceWithVariant") {
        return {RunMoves::Own::Stop, MoveCause::Operator};
    }
    if (operation == "recycleServiceWithVariant") {
        return {RunMoves::Own::Restart, MoveCause::Operator};
    }
    if (operation == "writeSettingsWithRequest") {
        return {RunMoves::Own::Restart, MoveCause::SettingsChange};
    }
    return {};
}

std::vector<MoveCause> causesOf(const std::vector<JobMoveKind>& moves, const RunMoves& run) {
    std::vector<MoveCause> causes(moves.size(), MoveCause::Migration);
    auto startsARestart = [&moves](std::size_t index) {
        return index + 1 < moves.size() && moves[index] == JobMoveKind::Stop &&
               moves[index + 1] == JobMoveKind::Start;
    };
    // A restart's own moves are its last start and the stop just before it (or a last stop
    // alone, when its start was never asked for).
    std::size_t ownFrom = moves.size();
    if (run.own == RunMoves::Own::Restart && !moves.empty()) {
        ownFrom = moves.size() - 1;
        if (ownFrom > 0 && startsARestart(ownFrom - 1)) {
            --ownFrom;
        }
    }
    for (std::size_t index = 0; index < moves.size(); ++index) {
        if (index >= ownFrom || run.own == RunMoves::Own::Every) {
            causes[index] = run.cause;
        } else if (run.own == RunMoves::Own::Start || run.own == RunMoves::Own::Stop) {
            if (startsARestart(index)) {
                ++index;  // the migration's pair, both left as they are
                continue;
            }
            const JobMoveKind own =
                run.own == RunMoves::Own::Start ? JobMoveKind::Start : JobMoveKind::Stop;
            causes[index] = moves[index] == own ? run.cause : MoveCause::Migration;
        }
    }
    return causes;
}

}  // namespace velnor::host
