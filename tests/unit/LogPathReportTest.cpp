#include <gtest/gtest.h>

#include "FakePlatform.h"
#include "handler/PostgresRequestHandler.h"

namespace velnor::postgres {
namespace {

using LogPathReport = testing::PlatformTest;

TEST_F(LogPathReport, FollowsTheJobFileAsItStands) {
    const std::pair<std::optional<LaunchArguments>, const char*> cases[] = {
        {std::nullopt, "/Library/Logs/PostgreSQL/PostgreSQL.log"},
        {LaunchArguments{"-c", "log_directory=/Library/Logs"}, "/Library/Logs/PostgreSQL.log"},
        {LaunchArguments{"log_directory=/a", "-c", "log_directory=/b"}, "/b/PostgreSQL.log"},
        {LaunchArguments{"log_directory="}, "PostgreSQL.log"},
        {LaunchArguments{"log_directory=/logs/"}, "/logs/PostgreSQL.log"},
        {LaunchArguments{"log_directory=/"}, "/PostgreSQL.log"},
        {LaunchArguments{"log_filename=x.log", "log_filename=a=b.log"},
         "/Library/Logs/PostgreSQL/x.log"},
        {LaunchArguments{"LOG_DIRECTORY=/x", "log_directory =/y"},
         "/Library/Logs/PostgreSQL/PostgreSQL.log"},
    };
    PostgresRequestHandler handler;
    for (const auto& [arguments, log] : cases) {
        platform().jobArguments = arguments;
        EXPECT_EQ(handler.getLogPathsWithRequest({}), (PlistDictionary{{"log", log}}))
            << ::testing::PrintToString(arguments);
    }
}

}  // namespace
}  // namespace velnor::postgres
