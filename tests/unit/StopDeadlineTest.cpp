#include <gtest/gtest.h>

#include "StopDeadline.h"

namespace velnor::host {
namespace {

using std::chrono::milliseconds;

TEST(StopDeadline, IsTheEarliestPendingStopAndRetriesOneThatSurvivedItsQuery) {
    const auto now = std::chrono::steady_clock::time_point(std::chrono::hours(100));
    struct Case {
        const char* what;
        std::vector<PendingStop> pending;
        std::string queried;
        std::optional<std::pair<std::string, std::chrono::steady_clock::duration>> expected;
    };
    const Case cases[] = {
        {"none pending", {}, "", std::nullopt},
        {"the earlier of two", {{"a", 3000}, {"b", 1200}}, "", std::pair{"b", milliseconds(1200)}},
        {"a tie goes to the first",
         {{"a", 500}, {"b", 500}},
         "",
         std::pair{"a", milliseconds(500)}},
        {"one past its deadline, not just queried, is due now",
         {{"a", 0}},
         "b",
         std::pair{"a", milliseconds(0)}},
        {"one that survived its query is asked again later",
         {{"a", 0}},
         "a",
         std::pair{"a", kStopRetry}},
        {"and another due before that goes first",
         {{"a", 0}, {"b", 200}},
         "a",
         std::pair{"b", milliseconds(200)}},
    };
    for (const Case& test : cases) {
        std::optional<StopDeadline> found = earliestStopDeadline(test.pending, test.queried, now);
        ASSERT_EQ(found.has_value(), test.expected.has_value()) << test.what;
        if (found) {
            EXPECT_EQ(found->label, test.expected->first) << test.what;
            EXPECT_EQ(found->at - now, test.expected->second) << test.what;
        }
    }
}

}  // namespace
}  // namespace velnor::host
