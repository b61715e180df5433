// Why each start and stop of one of the worker's runs happened, from the run and its moves.
#include <gtest/gtest.h>

#include <string>

#include "MoveCauses.h"

namespace velnor::host {
namespace {

// The moves as letters (S start, T stop) and the causes as the ledger names them.
std::vector<JobMoveKind> movesOf(std::string_view letters) {
    std::vector<JobMoveKind> moves;
    for (char letter : letters) {
        moves.push_back(letter == 'S' ? JobMoveKind::Start : JobMoveKind::Stop);
    }
    return moves;
}

std::string causesText(const std::vector<MoveCause>& causes) {
    std::string text;
    for (MoveCause cause : causes) {
        text += (text.empty() ? "" : ", ") + std::string(causeName(cause));
    }
    return text;
}

TEST(MoveCauses, TheRunsOwnMovesComeLastAndTheMigrationsBeforeThem) {
    struct Row {
        const char* operation;
        const char* moves;
        const char* causes;
    };
    const Row rows[] = {
        {"startServiceWithVariant", "S", "operator"},
        {"startServiceWithVariant", "", ""},  // it already ran
        // The migration restarted the running server; the start itself then found it running.
        {"startServiceWithVariant", "TS", "migration, migration"},
        {"stopServiceWithVariant", "T", "operator"},
        {"stopServiceWithVariant", "TST", "migration, migration, operator"},
        // The migration started the stopped server, which the stop then stopped.
        {"stopServiceWithVariant", "ST", "migration, operator"},
        {"recycleServiceWithVariant", "TS", "operator, operator"},
        {"recycleServiceWithVariant", "TSTS", "migration, migration, operator, operator"},
        {"writeSettingsWithRequest", "TS", "settings change, settings change"},
        {"writeSettingsWithRequest", "STS", "migration, settings change, settings change"},
        {"writeSettingsWithRequest", "", ""},
        {"writeSettingsWithRequest", "T", "settings change"},  // its start never asked for
        // A state report or an idle tick moves the job only through the migration.
        {"getStateWithRequest", "TS", "migration, migration"},
        {"doIdleAtCount", "S", "migration"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(causesText(causesOf(movesOf(row.moves), movesOfOperation(row.operation))),
                  row.causes)
            << row.operation << " moving " << row.moves;
    }
}

TEST(MoveCauses, EveryMoveAtLoadIsTheLoads) {
    const RunMoves atLoad{RunMoves::Own::Every, MoveCause::AtLoad};
    EXPECT_EQ(causesText(causesOf(movesOf("STS"), atLoad)), "at load, at load, at load");
}

}  // namespace
}  // namespace velnor::host
