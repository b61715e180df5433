#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "HandlerTest.h"

namespace velnor::postgres {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Probe = std::optional<int>;
using ServiceControl = testing::HandlerTest;

// Four probes half a second apart; no probe follows the last wait. The timeouts themselves are
// shown against a real server.
TEST_F(ServiceControl, StartProbesAtMostFourTimesAndStopsAtTheFirstAnswer) {
    struct Case {
        std::deque<Probe> answers;
        bool timesOut;
        int probes;
    };
    const Case cases[] = {
        {{150000}, false, 1},
        {{{}, {}, {}, 150000}, false, 4},
        {{{}, {}, {}, {}, 150000}, true, 4},
    };
    for (const auto& c : cases) {
        SetUp();
        platform().probeAnswers = c.answers;
        const auto response = handler.startServiceWithVariant(PlistValue());
        EXPECT_EQ(response.has_value(), c.timesOut) << c.probes;
        EXPECT_EQ(platform().callsStartingWith("pqConnectdb").size(), std::size_t(c.probes));
        EXPECT_EQ(platform().callsStartingWith("pqFinish").size(), std::size_t(c.probes));
        EXPECT_EQ(platform().callsStartingWith("usleep").size(),
                  std::size_t(c.timesOut ? 4 : c.probes - 1));
    }
}

TEST_F(ServiceControl, StopEndsIdleClientsBeforeAskingLaunchd) {
    platform().jobRunning = true;
    EXPECT_EQ(handler.stopServiceWithVariant(PlistValue()), std::nullopt);
    const auto& calls = platform().calls;
    EXPECT_LT(std::find(calls.begin(), calls.end(), "getProcessTable"),
              std::find(calls.begin(), calls.end(),
                        "setLaunchDaemonServiceState org.postgresql.postgres 0"));
}

TEST_F(ServiceControl, StopGoesOnWhenTheProcessTableCannotBeRead) {
    platform().processes = std::nullopt;
    EXPECT_EQ(handler.stopServiceWithVariant(PlistValue()), std::nullopt);
    EXPECT_THAT(platform().logMessages(),
                ElementsAre("velnor_postgres: Cannot get process table",
                            "velnor_postgres: Unable to shut down idle clients, proceeding with "
                            "service stop"));
    EXPECT_THAT(platform().requestedStates, ElementsAre(0));
}

TEST_F(ServiceControl, RefusalsComeBackWithoutAMessageAndBadVariantsBeforeAnything) {
    EXPECT_THROW(handler.startServiceWithVariant(PlistValue::integer(1)), std::invalid_argument);
    EXPECT_THROW(handler.stopServiceWithVariant(PlistValue::boolean(true)), std::invalid_argument);
    EXPECT_THAT(platform().calls, IsEmpty());
    platform().launchdAccepts = false;
    EXPECT_EQ(handler.startServiceWithVariant(PlistValue()),
              (PlistDictionary{{"error", "CANNOT_START_SERVICE_ERR"}}));
    EXPECT_EQ(handler.stopServiceWithVariant(PlistValue()),
              (PlistDictionary{{"error", "CANNOT_STOP_SERVICE_ERR"}}));
    EXPECT_THAT(platform().log, IsEmpty());
    EXPECT_THAT(platform().callsStartingWith("pqConnectdb"), IsEmpty());
}

TEST_F(ServiceControl, OnlyAVariantThatBeginsWithTheSkipPrefixSkipsTheHousekeeping) {
    const std::pair<PlistValue, bool> cases[] = {
        {PlistValue("skipDependenciesChecks"), false},
        {PlistValue("skipDependenciesChecksX"), false},
        {PlistValue("xskipDependenciesChecks"), true},
        {PlistValue("SkipDependenciesChecks"), true},
        {PlistValue(""), true},
        {PlistValue(), true},
    };
    for (const auto& [variant, housekeeping] : cases) {
        for (bool stop : {false, true}) {
            platform().calls.clear();
            stop ? handler.stopServiceWithVariant(variant)
                 : handler.startServiceWithVariant(variant);
            EXPECT_EQ(!platform().callsStartingWith("fileExists").empty(), housekeeping)
                << stop << ::testing::PrintToString(variant.asString() ? *variant.asString() : "");
            // Idle clients are ended before every stop, whatever its variant.
            EXPECT_EQ(platform().callsStartingWith("getProcessTable").size(), stop ? 1u : 0u);
        }
    }
}

TEST_F(ServiceControl, RecycleRestartsOnlyARunningJobEvenAfterAFailedStop) {
    EXPECT_EQ(handler.recycleServiceWithVariant(PlistValue()), std::nullopt);
    EXPECT_THAT(platform().requestedStates, IsEmpty());
    platform().jobRunning = true;
    platform().serverAnswers = 150000;  // never falls silent, so the stop times out
    EXPECT_EQ(handler.recycleServiceWithVariant(PlistValue()), std::nullopt);
    EXPECT_THAT(platform().requestedStates, ElementsAre(0, 1));
    EXPECT_EQ(platform().logMessages().back(),
              "velnor_postgres: Timed out trying to stop postgres.");
}

}  // namespace
}  // namespace velnor::postgres
