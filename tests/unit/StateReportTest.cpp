#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "HandlerTest.h"

namespace velnor::postgres {
namespace {

using ::testing::ElementsAre;

PlistDictionary variantRequest(PlistValue variant) {
    return {{"variant", std::move(variant)}};
}

class StateReport : public testing::HandlerTest {
  protected:
    PlistDictionary detailsFor(const std::string& dataFolder) {
        platform().jobArguments = LaunchArguments{"/usr/bin/postgres", "-D", dataFolder};
        return handler.getStateWithRequest(variantRequest(PlistValue("withDetails")));
    }
    static bool flag(const PlistDictionary& response, const char* key) {
        return response.find(key)->asBoolean().value();
    }
};

TEST_F(StateReport, PlainReportHoldsTheStateAloneAndReadsNoJobFile) {
    platform().jobRunning = true;
    for (const PlistValue& variant : {PlistValue(), PlistValue(""), PlistValue("WithDetails"),
                                      PlistValue("details"), PlistValue(" withDetails")}) {
        const auto response = handler.getStateWithRequest(
            variant.isAbsent() ? PlistDictionary() : variantRequest(variant));
        EXPECT_EQ(response.size(), 1u);
        EXPECT_EQ(*response.find("state")->asString(), "RUNNING");
    }
    EXPECT_TRUE(platform().callsStartingWith("getLaunchDaemonServiceConfigArgs").empty());
}

TEST_F(StateReport, StateIsReadBeforeTheFoldersAreMade) {
    platform().entries.clear();
    platform().jobArguments = LaunchArguments{"/usr/bin/postgres", "-D", "/var/pgsql"};
    platform().addFile("/var/pgsql/.10.7.4_log_directory_updated");
    const auto response = handler.getStateWithRequest({});
    EXPECT_EQ(*response.find("state")->asString(), "STOPPED");
    EXPECT_EQ(platform().calls.front(), "getLaunchDaemonServiceState org.postgresql.postgres");
    EXPECT_TRUE(platform().exists("/var/pgsql_socket"));
    EXPECT_TRUE(platform().exists("/Library/Logs/PostgreSQL"));
}

TEST_F(StateReport, DetailedReportHasNineKeysOfTheirOwnKinds) {
    platform().addFolder("/var/pgsql");
    platform().addFile("/var/pgsql/PG_VERSION");
    platform().serverAnswers = 150018;
    platform().jobArguments = LaunchArguments{"/usr/bin/postgres", "-D", "/var/pgsql"};
    const auto response =
        handler.getStateWithRequest(variantRequest(PlistValue("withDetailsPlease")));
    EXPECT_EQ(response.size(), 9u);
    EXPECT_EQ(*response.find("PG_VERSION")->asString(), "9.0.5");
    EXPECT_EQ(response.find("setStateVersion")->asInteger(), 1);
    EXPECT_EQ(*response.find("dataDir")->asString(), "/var/pgsql");
    EXPECT_EQ(response.find("dataDirExists")->asBoolean(), true);
    EXPECT_EQ(response.find("dataDirIsDirectory")->asBoolean(), true);
    EXPECT_EQ(response.find("dataDirHasBeenInitialized")->asBoolean(), true);
    EXPECT_EQ(response.find("postgresIsResponding")->asBoolean(), true);
    EXPECT_EQ(response.find("PGserverVersion")->asInteger(), 150018);
}

TEST_F(StateReport, ASilentServerIsReportedWithTheIntegerZero) {
    platform().jobRunning = true;
    const auto response = detailsFor("/var/pgsql");
    EXPECT_EQ(*response.find("state")->asString(), "RUNNING");
    EXPECT_EQ(response.find("postgresIsResponding")->asBoolean(), false);
    EXPECT_EQ(response.find("PGserverVersion")->kind(), PlistValue::Kind::Integer);
    EXPECT_EQ(response.find("PGserverVersion")->asInteger(), 0);
}

TEST_F(StateReport, DataFolderConditions) {
    struct Case {
        const char* name;
        std::function<void(testing::FakePlatform&)> stage;
        const char* folder;
        bool exists, isDirectory, initialised;
    };
    const Case cases[] = {
        {"missing", [](auto&) {}, "/d", false, false, false},
        {"plain file", [](auto& p) { p.addFile("/d"); }, "/d", true, false, false},
        {"link to an initialised folder",
         [](auto& p) {
             p.addFolder("/real");
             p.addFile("/real/PG_VERSION");
             p.addLink("/d", "/real");
             p.addLink("/d/PG_VERSION", "/real/PG_VERSION");
         },
         "/d", true, true, true},
        {"dangling link", [](auto& p) { p.addLink("/d", "/nowhere"); }, "/d", false, false, false},
        {"PG_VERSION is a folder",
         [](auto& p) {
             p.addFolder("/d");
             p.addFolder("/d/PG_VERSION");
         },
         "/d", true, true, true},
        {"trailing slash",
         [](auto& p) {
             p.addFolder("/d/");
             p.addFile("/d/PG_VERSION");
         },
         "/d/", true, true, true},
        {"empty path", [](auto& p) { p.addFile("PG_VERSION"); }, "", false, false, true},
    };
    for (const auto& c : cases) {
        SetUp();
        c.stage(platform());
        const auto response = detailsFor(c.folder);
        EXPECT_EQ(*response.find("dataDir")->asString(), c.folder) << c.name;
        EXPECT_EQ(flag(response, "dataDirExists"), c.exists) << c.name;
        EXPECT_EQ(flag(response, "dataDirIsDirectory"), c.isDirectory) << c.name;
        EXPECT_EQ(flag(response, "dataDirHasBeenInitialized"), c.initialised) << c.name;
    }
}

TEST_F(StateReport, DetailsWithoutAFolderEndWithoutAResponse) {
    platform().jobArguments = LaunchArguments{"/usr/bin/postgres", "-c", "a=b"};
    EXPECT_THROW(handler.getStateWithRequest(variantRequest(PlistValue("withDetails"))),
                 std::out_of_range);
    platform().jobArguments = std::nullopt;
    EXPECT_THROW(handler.getStateWithRequest(variantRequest(PlistValue("withDetails"))),
                 std::invalid_argument);
    // The plain report of the same job answers.
    EXPECT_EQ(handler.getStateWithRequest({}).size(), 1u);
}

TEST_F(StateReport, AVariantOfAnotherKindIsRefusedBeforeAnything) {
    EXPECT_THROW(handler.getStateWithRequest(variantRequest(PlistValue::boolean(true))),
                 std::invalid_argument);
    EXPECT_TRUE(platform().calls.empty());
}

}  // namespace
}  // namespace velnor::postgres
