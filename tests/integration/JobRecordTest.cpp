// What root reads back from the record of a started job and the mark of a job asked to stop:
// files in a root-only folder, but read as text that must be exactly what was written.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <limits>

#include "LaunchdJob.h"
#include "LaunchdJobs.h"

namespace velnor {
namespace {

TEST(JobRecords, AreOneLineOfAPidItsStartAndItsExitTimeOut) {
    // The text, and what it reads as: "pid start timeout", or "<none>".
    const std::pair<const char*, const char*> cases[] = {
        {"123 456 30\n", "123 456 30"},
        {"123 456\n", "123 456 20"},  // written before records held the time out
        {"1 0 1\n", "1 0 1"},
        {"2147483647 18446744073709551615 2147483647\n",
         "2147483647 18446744073709551615 2147483647"},
        {"123 456 0\n", "<none>"},
        {"123 456 2147483648\n", "<none>"},
        {"0 456 30\n", "<none>"},  // no process has pid 0: signalling it would hit our group
        {"2147483648 456 30\n", "<none>"},
        {"-1 456 30\n", "<none>"},
        {"+1 456 30\n", "<none>"},
        {"123 18446744073709551616 30\n", "<none>"},
        {"123 456 30", "<none>"},  // cut short while written
        {"123 456 30 7\n", "<none>"},
        {"123\n", "<none>"},
        {"123  456\n", "<none>"},
        {" 123 456\n", "<none>"},
        {"123 456 \n", "<none>"},
        {"123 456\n\n", "<none>"},
        {"123 456\r\n", "<none>"},
        {"123 4x6\n", "<none>"},
        {"\n", "<none>"},
        {"", "<none>"},
    };
    for (const auto& [text, expected] : cases) {
        const auto record = parseJobRecord(text);
        EXPECT_EQ(record ? std::to_string(record->process.pid) + " " +
                               std::to_string(record->process.startTime) + " " +
                               std::to_string(record->exitTimeOutSeconds)
                         : "<none>",
                  expected)
            << '"' << text << '"';
    }
    EXPECT_EQ(kDefaultExitTimeOutSeconds, 20) << "the row without a time out above assumes it";
    for (const JobRecord& record :
         {JobRecord{{1, 0}, 1}, JobRecord{{INT_MAX, UINT64_MAX}, INT_MAX}}) {
        const auto again = parseJobRecord(formatJobRecord(record));
        ASSERT_TRUE(again);
        EXPECT_EQ(again->process, record.process);
        EXPECT_EQ(again->exitTimeOutSeconds, record.exitTimeOutSeconds);
    }
}

TEST(StopMarks, AreOneLineOfAPidItsStartAndWhenToKillIt) {
    const std::pair<const char*, const char*> cases[] = {
        {"123 456 789\n", "123 456 789"},
        {"123 456 0\n", "123 456 0"},
        {"123 456 9223372036854775807\n", "123 456 9223372036854775807"},
        {"123 456 9223372036854775808\n", "<none>"},  // past the boot clock's range
        {"123 456 -5\n", "<none>"},
        {"123 456\n", "<none>"},  // a mark always says when
        {"0 456 789\n", "<none>"},
        {"2147483648 456 789\n", "<none>"},
        {"123 456 789 1\n", "<none>"},
        {"123 456 789", "<none>"},
        {"123 456 789 \n", "<none>"},
        {"", "<none>"},
    };
    for (const auto& [text, expected] : cases) {
        const auto mark = parseStopMark(text);
        EXPECT_EQ(mark ? std::to_string(mark->process.pid) + " " +
                             std::to_string(mark->process.startTime) + " " +
                             std::to_string(mark->killAtMilliseconds)
                       : "<none>",
                  expected)
            << '"' << text << '"';
    }
    const StopMark last{{INT_MAX, UINT64_MAX}, std::numeric_limits<std::int64_t>::max()};
    const auto again = parseStopMark(formatStopMark(last));
    ASSERT_TRUE(again);
    EXPECT_EQ(again->process, last.process);
    EXPECT_EQ(again->killAtMilliseconds, last.killAtMilliseconds);
}

}  // namespace
}  // namespace velnor
