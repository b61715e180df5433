#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FakePlatform.h"
#include "config/LaunchArgumentCodec.h"
#include "handler/Paths.h"
#include "handler/PostgresRequestHandler.h"

namespace velnor::postgres {
namespace {

class LogPathReport : public testing::PlatformTest {
  protected:
    std::string logPathFor(std::optional<LaunchArguments> arguments) {
        platform().jobArguments = std::move(arguments);
        const auto response = handler.getLogPathsWithRequest({});
        EXPECT_EQ(response.size(), 1u);
        return *response.find("log")->asString();
    }
    PostgresRequestHandler handler;
};

TEST_F(LogPathReport, FollowsTheJobFileAsItStands) {
    struct Case {
        std::optional<LaunchArguments> arguments;
        const char* log;
    };
    const Case cases[] = {
        {defaultArguments("/var/pgsql"), "/Library/Logs/PostgreSQL/PostgreSQL.log"},
        {LaunchArguments{}, "/Library/Logs/PostgreSQL/PostgreSQL.log"},
        {std::nullopt, "/Library/Logs/PostgreSQL/PostgreSQL.log"},
        {LaunchArguments{"-c", "log_directory=/Library/Logs"}, "/Library/Logs/PostgreSQL.log"},
        {LaunchArguments{"log_directory=/a", "-c", "log_directory=/b"}, "/b/PostgreSQL.log"},
        {LaunchArguments{"log_directory="}, "PostgreSQL.log"},
        {LaunchArguments{"log_directory=/logs/"}, "/logs/PostgreSQL.log"},
        {LaunchArguments{"log_directory=/"}, "/PostgreSQL.log"},
        {LaunchArguments{"log_directory=pg_log"}, "pg_log/PostgreSQL.log"},
        {LaunchArguments{"log_filename=x.log", "log_filename=a=b.log"},
         "/Library/Logs/PostgreSQL/x.log"},
        {LaunchArguments{"LOG_DIRECTORY=/x", "log_directory =/y"},
         "/Library/Logs/PostgreSQL/PostgreSQL.log"},
        {LaunchArguments{"log_filename=pg-%Y.log"}, "/Library/Logs/PostgreSQL/pg-%Y.log"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(logPathFor(c.arguments), c.log) << ::testing::PrintToString(c.arguments);
    }
}

TEST_F(LogPathReport, CreatesNoFolderAndIgnoresItsRequest) {
    platform().jobArguments = defaultArguments("/var/pgsql");
    EXPECT_EQ(handler.getLogPathsWithRequest({{"variant", PlistValue::integer(3)}}),
              handler.getLogPathsWithRequest({}));
    EXPECT_TRUE(platform().callsStartingWith("fileExists").empty());
    EXPECT_TRUE(platform().callsStartingWith("createDirectory").empty());
}

TEST(Paths, FormatReplacesEveryPlaceholderAndShowsAbsenceAsNull) {
    EXPECT_EQ(formatWithObject("%@/.m", std::string("/var/pgsql")), "/var/pgsql/.m");
    EXPECT_EQ(formatWithObject("%@/.m", std::nullopt), "(null)/.m");
    EXPECT_EQ(formatWithObject("%@/.m", std::string("")), "/.m");
}

}  // namespace
}  // namespace velnor::postgres
