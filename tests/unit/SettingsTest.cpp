#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "HandlerTest.h"
#include "config/LaunchArgumentCodec.h"

namespace velnor::postgres {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

PlistDictionary configurationRequest(PlistValue configuration) {
    return {{"configuration", std::move(configuration)}};
}

class Settings : public testing::HandlerTest {
  protected:
    void SetUp() override {
        HandlerTest::SetUp();
        platform().jobArguments = defaultArguments("/var/pgsql");
        platform().serverFollowsJob = true;
    }
};

TEST_F(Settings, ReadAnswersTheSameWhateverTheRequest) {
    const auto empty = handler.readSettingsWithRequest({});
    EXPECT_EQ(handler.readSettingsWithRequest(configurationRequest(PlistValue("x"))), empty);
    EXPECT_EQ(empty.size(), 2u);
    EXPECT_EQ(empty.find("readStatus")->kind(), PlistValue::Kind::Integer);
    EXPECT_EQ(empty.find("readStatus")->asInteger(), 0);
    const auto& configuration = *empty.find("configuration")->asDictionary();
    EXPECT_EQ(configuration.size(), 12u);
    EXPECT_EQ(*configuration.find("dataDir")->asString(), "/var/pgsql");
}

TEST_F(Settings, ReadOfAnUnreadableJobFileIsAnEmptyConfiguration) {
    platform().jobArguments = std::nullopt;
    platform().addFile("/var/pgsql/.10.7.4_log_directory_updated");
    const auto response = handler.readSettingsWithRequest({});
    EXPECT_TRUE(response.find("configuration")->asDictionary()->empty());
}

TEST_F(Settings, ReadRunsTheHousekeepingFirst) {
    handler.readSettingsWithRequest({});
    EXPECT_THAT(platform().calls,
                ElementsAre("fileExists /var/pgsql_socket", "fileExists /Library/Logs/PostgreSQL",
                            "getLaunchDaemonServiceConfigArgs "
                            "/System/Library/LaunchDaemons/org.postgresql.postgres.plist"));
}

TEST_F(Settings, WriteMergesSortsAndStoresTheWholeVector) {
    const auto response = handler.writeSettingsWithRequest(
        configurationRequest(PlistValue(PlistDictionary{{"log_statement", PlistValue("all")}})));
    ASSERT_EQ(platform().storedArguments.size(), 1u);
    EXPECT_THAT(
        platform().storedArguments[0],
        ElementsAre("/usr/bin/postgres", "-D", "/var/pgsql", "-c", "listen_addresses=", "-c",
                    "log_connections=on", "-c", "log_directory=/Library/Logs/PostgreSQL", "-c",
                    "log_filename=PostgreSQL.log", "-c", "log_line_prefix=%t ", "-c",
                    "log_lock_waits=on", "-c", "log_statement=all", "-c", "logging_collector=on",
                    "-c", "unix_socket_directory=/var/pgsql_socket", "-c",
                    "unix_socket_group=_postgres", "-c", "unix_socket_permissions=0770"));
    const auto& configuration = *response.find("configuration")->asDictionary();
    EXPECT_EQ(configuration.size(), 11u);
    EXPECT_FALSE(configuration.contains("dataDir"));
    EXPECT_EQ(response.find("writeStatus")->asInteger(), 0);
    EXPECT_EQ(response.find("readStatus")->asInteger(), 0);
}

TEST_F(Settings, WriteTakesTheFolderFromPositionTwoAndDropsWhatIsNotASetting) {
    platform().jobArguments =
        LaunchArguments{"/usr/bin/postgres", "-c", "b=2", "-D", "/var/pgsql", "--single", "a=1"};
    handler.writeSettingsWithRequest({});
    EXPECT_THAT(platform().storedArguments.back(),
                ElementsAre("/usr/bin/postgres", "-D", "b=2", "-c", "a=1", "-c", "b=2"));
}

TEST_F(Settings, WriteWithANewFolderAndAnIntegerAndAValueHoldingEquals) {
    const auto response = handler.writeSettingsWithRequest(
        configurationRequest(PlistValue(PlistDictionary{{"dataDir", PlistValue("/srv/db")},
                                                        {"work_mem", PlistValue::integer(4096)},
                                                        {"search_path", PlistValue("a=b")}})));
    const auto& stored = platform().storedArguments.back();
    EXPECT_EQ(stored[2], "/srv/db");
    EXPECT_THAT(stored, ::testing::Contains("work_mem=4096"));
    EXPECT_THAT(stored, ::testing::Contains("search_path=a=b"));
    EXPECT_EQ(*response.find("configuration")->asDictionary()->find("dataDir")->asString(),
              "/srv/db");
    // The value holding "=" is invisible to the next read and gone after the next write.
    EXPECT_FALSE(handler.readSettingsWithRequest({})
                     .find("configuration")
                     ->asDictionary()
                     ->contains("search_path"));
    handler.writeSettingsWithRequest({});
    EXPECT_THAT(platform().storedArguments.back(),
                ::testing::Not(::testing::Contains("search_path=a=b")));
}

TEST_F(Settings, WriteRestartsARunningServiceAfterStoring) {
    platform().jobRunning = true;
    handler.writeSettingsWithRequest({});
    const auto& calls = platform().calls;
    const auto stored = std::find_if(calls.begin(), calls.end(), [](const std::string& call) {
        return call.starts_with("setLaunchDaemonServiceConfigArgs");
    });
    const auto stopped = std::find(calls.begin(), calls.end(),
                                   "setLaunchDaemonServiceState org.postgresql.postgres 0");
    EXPECT_LT(stored, stopped);
    EXPECT_THAT(platform().requestedStates, ElementsAre(0, 1));
    EXPECT_EQ(platform().logMessages().front(),
              "velnor_postgres: Stopping/starting postgres to pick up settings change");
}

TEST_F(Settings, WriteToAStoppedServiceRestartsNothing) {
    handler.writeSettingsWithRequest({});
    EXPECT_THAT(platform().requestedStates, IsEmpty());
    EXPECT_THAT(platform().log, IsEmpty());
}

TEST_F(Settings, WriteWithoutAFolderSlotEndsBeforeStoringAnything) {
    platform().jobArguments = LaunchArguments{"/usr/bin/postgres", "a=b"};
    platform().addFile("/var/pgsql/.10.7.4_log_directory_updated");
    EXPECT_THROW(handler.writeSettingsWithRequest({}), std::out_of_range);
    EXPECT_THAT(platform().storedArguments, IsEmpty());
}

TEST_F(Settings, MalformedRequestsAreRefusedBeforeAnythingHappens) {
    const PlistDictionary requests[] = {
        configurationRequest(PlistValue("log_statement=all")),
        configurationRequest(PlistValue(PlistDictionary{{"a", PlistValue::boolean(true)}})),
        configurationRequest(PlistValue(PlistDictionary{{"a", PlistValue(PlistArray{})}})),
        configurationRequest(PlistValue(PlistDictionary{{"dataDir", PlistValue::integer(1)}})),
    };
    for (const auto& request : requests) {
        EXPECT_THROW(handler.writeSettingsWithRequest(request), std::invalid_argument);
    }
    EXPECT_THAT(platform().calls, IsEmpty());
}

}  // namespace
}  // namespace velnor::postgres
