#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "HandlerTest.h"
#include "config/LaunchArgumentCodec.h"

namespace velnor::postgres {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::LogEntry;

PlistDictionary success(const std::string& folder) {
    return {{"command", "initialSetup"},
            {"configuration", PlistDictionary{{"dataLocation", folder}}},
            {"status", PlistValue::integer(0)}};
}

class InitialSetup : public testing::HandlerTest {
  protected:
    LaunchArguments storedVector() {
        return platform().storedArguments.empty() ? LaunchArguments{}
                                                  : platform().storedArguments.back();
    }
};

TEST_F(InitialSetup, FreshSetupCreatesTheFolderAndGivesItToTheServiceAccount) {
    EXPECT_EQ(handler.initialSetupWithRequest(
                  PlistDictionary{{"dataLocation", PlistValue("/srv/pg/data")}}),
              success("/srv/pg/data"));
    const auto* folder = platform().entry("/srv/pg/data");
    ASSERT_NE(folder, nullptr);
    ASSERT_TRUE(folder->attributes.has_value());
    EXPECT_EQ(folder->attributes->permissions, 0700u);
    EXPECT_EQ(folder->attributes->owner, "_postgres");
    EXPECT_EQ(folder->attributes->group, "_postgres");
    EXPECT_EQ(storedVector(), defaultArguments("/srv/pg/data"));
    EXPECT_THAT(platform().log, ElementsAre(LogEntry{LOG_NOTICE,
                                                     "velnor_postgres: Created dataLocation "
                                                     "folder /srv/pg/data"}));
    // The setup runs no housekeeping of its own.
    EXPECT_THAT(platform().callsStartingWith("fileExists"), IsEmpty());
}

TEST_F(InitialSetup, WithoutALocationUsesTheDefaultAndCreatesNothing) {
    EXPECT_EQ(handler.initialSetupWithRequest({}), success("/var/pgsql"));
    EXPECT_THAT(platform().callsStartingWith("createDirectory"), IsEmpty());
    EXPECT_EQ(storedVector(), defaultArguments("/var/pgsql"));
}

TEST_F(InitialSetup, UpgradeKeepsTheStoredFolderAndIgnoresTheLocation) {
    platform().jobArguments = LaunchArguments{"/usr/bin/postgres", "-c", "a=b", "-D", "/old/data"};
    EXPECT_EQ(handler.initialSetupWithRequest(PlistDictionary{
                  {"upgrade", PlistValue::boolean(true)}, {"dataLocation", PlistValue("/new")}}),
              success("/old/data"));
    EXPECT_THAT(platform().callsStartingWith("createDirectory"), IsEmpty());
    EXPECT_EQ(storedVector(), defaultArguments("/old/data"));
}

TEST_F(InitialSetup, UpgradeWithoutAStoredFolderFallsBackToTheDefault) {
    platform().jobArguments = std::nullopt;
    platform().addFile("(null)/.10.7.4_log_directory_updated");
    EXPECT_EQ(
        handler.initialSetupWithRequest(PlistDictionary{{"upgrade", PlistValue::boolean(true)}}),
        success("/var/pgsql"));
    EXPECT_THAT(platform().log,
                ElementsAre(LogEntry{LOG_WARNING,
                                     "velnor_postgres: Couldn't get dataDir from existing "
                                     "settings, using default"}));
}

TEST_F(InitialSetup, AFolderThatCannotBeCreatedIsReportedAndStillNamedInTheJob) {
    platform().addFile("/srv/file");
    const auto response =
        handler.initialSetupWithRequest(PlistDictionary{{"dataLocation", PlistValue("/srv/file")}});
    ASSERT_EQ(response.size(), 1u);
    const std::string error = *response.find("error")->asString();
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(platform().logMessages(),
              std::vector<std::string>{"velnor_postgres: Error trying to create dataLocation "
                                       "folder /srv/file: " +
                                       error});
    EXPECT_EQ(storedVector(), defaultArguments("/srv/file"));
}

TEST_F(InitialSetup, AttributesThatCannotBeSetAreReportedWithoutTheReasonInTheLog) {
    platform().setAttributesFailures["/srv/db"] = "unknown account \"_postgres\"";
    const auto response =
        handler.initialSetupWithRequest(PlistDictionary{{"dataLocation", PlistValue("/srv/db")}});
    EXPECT_EQ(response, (PlistDictionary{{"error", PlistValue("unknown account \"_postgres\"")}}));
    EXPECT_THAT(platform().logMessages(),
                ElementsAre("velnor_postgres: Created dataLocation folder /srv/db",
                            "velnor_postgres: Error trying to set attributes of dataLocation "
                            "folder /srv/db"));
    EXPECT_EQ(storedVector(), defaultArguments("/srv/db"));
}

TEST_F(InitialSetup, UpgradeAcceptsBooleansIntegersAndPlainWords) {
    platform().jobArguments = LaunchArguments{"/usr/bin/postgres", "-D", "/kept"};
    struct Case {
        PlistValue upgrade;
        const char* folder;
    };
    const Case cases[] = {
        {PlistValue::boolean(false), "/asked"},
        {PlistValue::integer(0), "/asked"},
        {PlistValue::integer(2), "/kept"},
        {PlistValue("YES"), "/kept"},
        {PlistValue("true"), "/kept"},
        {PlistValue("no"), "/asked"},
        {PlistValue("0"), "/asked"},
    };
    for (const auto& c : cases) {
        platform().jobArguments = LaunchArguments{"/usr/bin/postgres", "-D", "/kept"};
        const auto response = handler.initialSetupWithRequest(
            PlistDictionary{{"upgrade", c.upgrade}, {"dataLocation", PlistValue("/asked")}});
        EXPECT_EQ(response, success(c.folder)) << ::testing::PrintToString(c.upgrade);
    }
}

TEST_F(InitialSetup, MalformedRequestsChangeNothing) {
    const PlistDictionary requests[] = {
        PlistDictionary{{"upgrade", PlistValue("perhaps")}},
        PlistDictionary{{"upgrade", PlistValue(PlistArray{})}},
        PlistDictionary{{"dataLocation", PlistValue::integer(5)}},
    };
    for (const auto& r : requests) {
        EXPECT_THROW(handler.initialSetupWithRequest(r), std::invalid_argument);
    }
    EXPECT_THAT(platform().calls, IsEmpty());
}

}  // namespace
}  // namespace velnor::postgres
