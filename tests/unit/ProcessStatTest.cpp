#include <gtest/gtest.h>

#include "ProcessStat.h"

namespace velnor {
namespace {

std::string fields(const std::string& head, const std::string& startTime = "4242") {
    // Fields 4 to 21 between the state and the start time, then the rest of the line.
    std::string line = head;
    for (int field = 4; field <= 21; ++field) {
        line += " " + std::to_string(field);
    }
    return line + " " + startTime + " 23 24\n";
}

TEST(ProcessStat, ParsesStateAndStartTimeAfterTheLastParenthesis) {
    const std::pair<std::string, const char*> cases[] = {
        {fields("7 (postgres) S"), "S4242"},
        {fields("7 (a) b (c) Z"), "Z4242"},
        {fields("7 (x) (y)) R", "18446744073709551615"), "R18446744073709551615"},
        {fields("7 ( ) ) ) X"), "X4242"},
        {fields("7 (p) SS"), nullptr},
        {fields("7 (p)  S"), nullptr},
        {fields("7 (p) S", "12a"), nullptr},
        {fields("7 (p) S", "18446744073709551616"), nullptr},
        {fields("7 (p) S", "-1"), nullptr},
        {"7 (p) S 4 5\n", nullptr},
        {"7 p S", nullptr},
        {"", nullptr},
    };
    for (const auto& [text, parsed] : cases) {
        const auto stat = parseProcessStat(text);
        EXPECT_EQ(stat ? stat->state + std::to_string(stat->startTime) : "<none>",
                  parsed ? parsed : "<none>")
            << text;
    }
}

}  // namespace
}  // namespace velnor
