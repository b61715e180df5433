#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "HandlerTest.h"

namespace velnor::postgres {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

PlistDictionary errorResponse(const char* code) {
    return {{"error", code}};
}

std::vector<std::string> repeated(const std::string& message, int times) {
    return std::vector<std::string>(times, message);
}

using ServiceControl = testing::HandlerTest;

TEST_F(ServiceControl, StartThatAnswersAtOnceCostsNoSleepAndNoMessage) {
    platform().serverAnswers = 150000;
    EXPECT_EQ(handler.startServiceWithVariant(PlistValue()), std::nullopt);
    EXPECT_THAT(platform().requestedStates, ElementsAre(1));
    EXPECT_THAT(platform().sleeps, IsEmpty());
    EXPECT_THAT(platform().log, IsEmpty());
    EXPECT_EQ(platform().connectionsOpened, 1);
    EXPECT_EQ(platform().connectionsFinished, 1);
}

TEST_F(ServiceControl, StartThatAnswersOnTheFourthProbeSucceeds) {
    platform().probeAnswers = {std::nullopt, std::nullopt, std::nullopt, 150000};
    EXPECT_EQ(handler.startServiceWithVariant(PlistValue()), std::nullopt);
    EXPECT_THAT(platform().sleeps, ElementsAre(500000, 500000, 500000));
    EXPECT_EQ(platform().logMessages(),
              repeated("velnor_postgres: waiting for postgres to respond", 3));
}

TEST_F(ServiceControl, StartThatNeverAnswersProbesFourTimesThenTimesOut) {
    platform().probeAnswers = {std::nullopt, std::nullopt, std::nullopt, std::nullopt, 150000};
    EXPECT_EQ(handler.startServiceWithVariant(PlistValue()),
              errorResponse("CANNOT_START_SERVICE_TIMEOUT_ERR"));
    // The fifth answer would have been yes, but no probe follows the fourth sleep.
    EXPECT_EQ(platform().connectionsOpened, 4);
    EXPECT_EQ(platform().connectionsFinished, 4);
    EXPECT_THAT(platform().sleeps, ElementsAre(500000, 500000, 500000, 500000));
    auto expected = repeated("velnor_postgres: waiting for postgres to respond", 4);
    expected.push_back("velnor_postgres: Timed out trying to start postgres.");
    EXPECT_EQ(platform().logMessages(), expected);
}

TEST_F(ServiceControl, StopThatNeverFallsSilentTimesOut) {
    platform().serverAnswers = 150000;
    EXPECT_EQ(handler.stopServiceWithVariant(PlistValue()),
              errorResponse("CANNOT_STOP_SERVICE_TIMEOUT_ERR"));
    EXPECT_THAT(platform().requestedStates, ElementsAre(0));
    EXPECT_EQ(platform().connectionsOpened, 4);
    auto expected = repeated("velnor_postgres: waiting for postgres to stop", 4);
    expected.push_back("velnor_postgres: Timed out trying to stop postgres.");
    EXPECT_EQ(platform().logMessages(), expected);
}

TEST_F(ServiceControl, StopOfASilentServerEndsIdleClientsThenAsksLaunchdThenProbesOnce) {
    platform().jobRunning = true;
    EXPECT_EQ(handler.stopServiceWithVariant(PlistValue()), std::nullopt);
    EXPECT_THAT(platform().calls,
                ElementsAre("getProcessTable", "fileExists /var/pgsql_socket",
                            "fileExists /Library/Logs/PostgreSQL",
                            "setLaunchDaemonServiceState org.postgresql.postgres 0",
                            "pqConnectdb dbname=postgres user=_postgres", "pqFinish"));
}

TEST_F(ServiceControl, RefusalsByLaunchdAreReportedWithoutAMessage) {
    platform().launchdAccepts = false;
    EXPECT_EQ(handler.startServiceWithVariant(PlistValue()),
              errorResponse("CANNOT_START_SERVICE_ERR"));
    EXPECT_EQ(handler.stopServiceWithVariant(PlistValue()),
              errorResponse("CANNOT_STOP_SERVICE_ERR"));
    EXPECT_THAT(platform().log, IsEmpty());
    EXPECT_EQ(platform().connectionsOpened, 0);
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

TEST_F(ServiceControl, OnlyAVariantThatBeginsWithTheSkipPrefixSkipsTheHousekeeping) {
    struct Case {
        PlistValue variant;
        bool housekeeping;
    };
    const Case cases[] = {
        {PlistValue("skipDependenciesChecks"), false},
        {PlistValue("skipDependenciesChecksAndMore"), false},
        {PlistValue("pleaseskipDependenciesChecks"), true},
        {PlistValue("SkipDependenciesChecks"), true},
        {PlistValue(""), true},
        {PlistValue(), true},
    };
    for (const auto& c : cases) {
        for (bool stop : {false, true}) {
            platform().calls.clear();
            stop ? handler.stopServiceWithVariant(c.variant)
                 : handler.startServiceWithVariant(c.variant);
            const bool ranHousekeeping = !platform().callsStartingWith("fileExists").empty();
            EXPECT_EQ(ranHousekeeping, c.housekeeping)
                << (stop ? "stop" : "start") << " with "
                << ::testing::PrintToString(c.variant.asString() ? *c.variant.asString()
                                                                 : "<absent>");
            // Idle clients are ended before every stop, whatever its variant.
            EXPECT_EQ(platform().callsStartingWith("getProcessTable").size(), stop ? 1u : 0u);
        }
    }
}

TEST_F(ServiceControl, AVariantOfAnotherKindIsRefusedBeforeAnythingHappens) {
    EXPECT_THROW(handler.startServiceWithVariant(PlistValue::integer(1)), std::invalid_argument);
    EXPECT_THROW(handler.stopServiceWithVariant(PlistValue::boolean(true)), std::invalid_argument);
    EXPECT_THAT(platform().calls, IsEmpty());
}

TEST_F(ServiceControl, RecycleOfAStoppedJobDoesNothing) {
    EXPECT_EQ(handler.recycleServiceWithVariant(PlistValue()), std::nullopt);
    EXPECT_THAT(platform().calls,
                ElementsAre("getLaunchDaemonServiceState org.postgresql.postgres"));
}

TEST_F(ServiceControl, RecycleOfARunningJobStopsAndStartsEvenAfterAFailedStop) {
    platform().jobRunning = true;
    platform().serverAnswers = 150000;  // never falls silent, so the stop times out
    EXPECT_EQ(handler.recycleServiceWithVariant(PlistValue()), std::nullopt);
    EXPECT_THAT(platform().requestedStates, ElementsAre(0, 1));
    const auto messages = platform().logMessages();
    EXPECT_EQ(messages.front(),
              "velnor_postgres: Stopping/starting postgres to pick up settings change");
    EXPECT_EQ(messages.back(), "velnor_postgres: Timed out trying to stop postgres.");
}

}  // namespace
}  // namespace velnor::postgres
