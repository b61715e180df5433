// The restart ledger: what it counts, the file it is kept in read back whole, and a file that
// another hand changed refused rather than half believed.
#include <gtest/gtest.h>

#include <cmath>

#include "PropertyListFile.h"
#include "RestartLedger.h"

namespace velnor::host {
namespace {

using std::chrono::system_clock;

system_clock::time_point at(std::int64_t secondsSince1970) {
    return system_clock::time_point(std::chrono::seconds(secondsSince1970));
}

TEST(RestartLedger, CountsStartsByCauseAndTodaysAfresh) {
    RestartLedger ledger;
    recordStart(ledger, MoveCause::Operator, at(1000), 0.5);
    recordStart(ledger, MoveCause::SettingsChange, at(1001), 0.25);
    recordStop(ledger, MoveCause::StopDeadline, 5.0);
    EXPECT_EQ(ledger.starts[0] + ledger.starts[1], 2u);
    EXPECT_EQ(ledger.stops[static_cast<std::size_t>(MoveCause::StopDeadline)], 1u);
    EXPECT_EQ(ledger.lastStart, 1001);
    EXPECT_EQ(ledger.lastStartSeconds, 0.25);
    EXPECT_EQ(ledger.lastStopSeconds, 5.0);

    // Three days later today's count starts again; the whole count goes on.
    recordStart(ledger, MoveCause::Operator, at(1000 + 3 * 86400), 0.5);
    EXPECT_EQ(ledger.starts[0], 2u);
    EXPECT_EQ(ledger.startsToday[0], 1u);
    EXPECT_EQ(ledger.startsToday[1], 0u);
    EXPECT_EQ(ledger.day, localDayOf(at(1000 + 3 * 86400)));
}

TEST(RestartLedger, KeepsABoundedNumberOfFailureCodes) {
    RestartLedger ledger;
    for (std::size_t code = 0; code < kMostFailureCodes + 5; ++code) {
        recordFailure(ledger, true, "CODE_" + std::to_string(code));
    }
    recordFailure(ledger, true, "CODE_0");
    EXPECT_EQ(ledger.startFailures.size(), kMostFailureCodes + 1);
    EXPECT_EQ(ledger.startFailures["other"], 5u);
    EXPECT_EQ(ledger.startFailures["CODE_0"], 2u);
    EXPECT_TRUE(ledger.stopFailures.empty());
}

TEST(RestartLedger, ItsFileReadsBackTheSame) {
    RestartLedger ledger;
    recordStart(ledger, MoveCause::Migration, at(1795566412), 0.615);
    recordStop(ledger, MoveCause::Operator, 0.7);
    recordFailure(ledger, false, "CANNOT_STOP_SERVICE_TIMEOUT_ERR");
    // Through the bytes, as the file holds them.
    support::Result<PlistValue> read = parsePropertyList(toXmlPropertyList(ledgerValue(ledger)));
    ASSERT_TRUE(read.ok());
    support::Result<RestartLedger> back = ledgerOfValue(*read);
    ASSERT_TRUE(back.ok()) << back.message();
    EXPECT_EQ(ledgerValue(*back), ledgerValue(ledger));
}

TEST(RestartLedger, RefusesAFileThatIsNotOneWhole) {
    const PlistValue good = ledgerValue(RestartLedger{});
    auto changed = [&good](const char* key, PlistValue value) {
        PlistDictionary file = *good.asDictionary();
        file.set(key, std::move(value));
        return PlistValue(std::move(file));
    };
    auto without = [&good](const char* key) {
        PlistDictionary file = *good.asDictionary();
        file.remove(key);
        return PlistValue(std::move(file));
    };
    PlistDictionary tooManyCodes;
    for (std::size_t code = 0; code < kMostFailureCodes + 2; ++code) {
        tooManyCodes.set("CODE_" + std::to_string(code), PlistValue::integer(1));
    }
    const std::pair<const char*, PlistValue> files[] = {
        {"a string", PlistValue("ledger")},
        {"an array", PlistValue(PlistArray{})},
        {"another version", changed("ledgerVersion", PlistValue::integer(2))},
        {"no version", without("ledgerVersion")},
        {"no starts", without("starts")},
        {"starts not a dictionary", changed("starts", PlistValue::integer(1))},
        {"an unknown cause",
         changed("starts", PlistDictionary{{"cosmic ray", PlistValue::integer(1)}})},
        {"a negative count",
         changed("stops", PlistDictionary{{"operator", PlistValue::integer(-1)}})},
        {"a count as text", changed("startsToday", PlistDictionary{{"operator", PlistValue("1")}})},
        {"a code without a count",
         changed("stopFailures", PlistDictionary{{"X", PlistValue::boolean(true)}})},
        {"too many codes", changed("startFailures", PlistValue(tooManyCodes))},
        {"a negative duration", changed("lastStartSeconds", PlistValue::real(-1))},
        {"a duration not a number", changed("lastStopSeconds", PlistValue::real(std::nan("")))},
        {"an endless duration", changed("lastStopSeconds", PlistValue::real(INFINITY))},
        {"no day", without("day")},
        {"a last start as text", changed("lastStart", PlistValue("yesterday"))},
    };
    for (const auto& [what, file] : files) {
        support::Result<RestartLedger> ledger = ledgerOfValue(file);
        EXPECT_FALSE(ledger.ok()) << what;
        if (!ledger.ok()) {
            EXPECT_EQ(ledger.message().rfind("not a restart ledger: ", 0), 0u) << ledger.message();
        }
    }
}

TEST(RestartLedger, ShowsTheLastStartAndOnlyTodaysStarts) {
    RestartLedger ledger;
    recordStart(ledger, MoveCause::AtLoad, at(978307200 + 60), 1.0);
    const PlistValue today = ledgerFigures(ledger, ledger.day);
    EXPECT_EQ(*today.asDictionary()->find("lastStart"), PlistValue::date(60));
    EXPECT_EQ(
        today.asDictionary()->find("startsToday")->asDictionary()->find("at load")->asInteger(), 1);
    const PlistValue tomorrow = ledgerFigures(ledger, "2999-01-01");
    EXPECT_EQ(
        tomorrow.asDictionary()->find("startsToday")->asDictionary()->find("at load")->asInteger(),
        0);
    EXPECT_FALSE(
        ledgerFigures(RestartLedger{}, "2999-01-01").asDictionary()->contains("lastStart"));
}

}  // namespace
}  // namespace velnor::host
