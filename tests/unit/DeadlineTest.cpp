// What a bounded wait has left, in the forms its callers use.
#include <gtest/gtest.h>

#include "Deadline.h"

namespace velnor::support {
namespace {

using std::chrono::hours;
using std::chrono::microseconds;
using std::chrono::milliseconds;

TEST(Deadline, CountsDownWholeMillisecondsAndStopsAtZero) {
    const Deadline::Clock::time_point start{};
    const struct {
        milliseconds allowed;
        microseconds elapsed;
        int pollMilliseconds;
        bool passed;
    } rows[] = {
        {milliseconds(1500), microseconds(0), 1500, false},
        {milliseconds(1500), microseconds(1000), 1499, false},
        {milliseconds(1500), microseconds(1499500), 0, true},  // under a millisecond is none
        {milliseconds(1500), microseconds(1500000), 0, true},
        {milliseconds(1500), microseconds(9000000), 0, true},  // never below zero
        {milliseconds(0), microseconds(0), 0, true},
        {hours(1000), microseconds(0), INT_MAX, false},  // more than poll() can take
    };
    for (const auto& row : rows) {
        const Deadline deadline(row.allowed, start);
        EXPECT_EQ(deadline.pollMilliseconds(start + row.elapsed), row.pollMilliseconds)
            << row.allowed.count() << " ms after " << row.elapsed.count() << " us";
        EXPECT_EQ(deadline.passed(start + row.elapsed), row.passed) << row.allowed.count();
    }
}

}  // namespace
}  // namespace velnor::support
