#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include "FakePlatform.h"
#include "handler/PostgresRequestHandler.h"

namespace velnor::postgres {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kJobFile[] = "/System/Library/LaunchDaemons/org.postgresql.postgres.plist";
constexpr char kOld[] = "log_directory=/Library/Logs";
constexpr char kNew[] = "log_directory=/Library/Logs/PostgreSQL";

PlistDictionary jobFileWith(const LaunchArguments& arguments) {
    return {{"Label", "org.postgresql.postgres"},
            {"ProgramArguments", PlistArray(arguments.begin(), arguments.end())}};
}

class Housekeeping : public testing::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        platform().addFolder("/var/pgsql_socket");
        platform().addFolder("/Library/Logs");
        platform().serverFollowsJob = true;
    }
    // A job file holding arguments, seen alike by the host library and by a direct read.
    void jobFileHolds(const LaunchArguments& arguments) {
        platform().jobArguments = arguments;
        platform().addFile(kJobFile);
        platform().entries[kJobFile].propertyList = jobFileWith(arguments);
    }
    PostgresRequestHandler handler;
};

// The migration runs once, marked beside the data folder as the job file names it, and
// restarts the service whether or not the old setting was there to replace.
TEST_F(Housekeeping, MigrationRewritesOnlyTheExactOldSettingAndMarksTheFolderAsNamed) {
    struct Case {
        std::optional<LaunchArguments> job;
        bool alreadyMarked;
        std::optional<LaunchArguments> rewritten;
        std::vector<std::string> markers;
        std::vector<int> states;
    };
    const std::string marker = "/.10.7.4_log_directory_updated";
    const Case cases[] = {
        {LaunchArguments{"p", "-D", "/var/pgsql", "-c", kOld, "-c", kOld},
         false,
         LaunchArguments{"p", "-D", "/var/pgsql", "-c", kNew, "-c", kOld},
         {"createFile /var/pgsql" + marker},
         {0, 1}},
        {LaunchArguments{"p", "-D", "/d", "log_directory=/Library/Logs/", "LOG_DIRECTORY=/x"},
         false,
         std::nullopt,
         {"createFile /d" + marker},
         {0, 1}},
        {LaunchArguments{"p", "-D", "/d", kOld}, true, std::nullopt, {}, {}},
        {LaunchArguments{"p", "-D", "/var/pgsql/"},
         false,
         std::nullopt,
         {"createFile /var/pgsql/" + marker},
         {0, 1}},
        {std::nullopt, false, std::nullopt, {"createFile (null)" + marker}, {0, 1}},
    };
    for (const auto& c : cases) {
        SetUp();
        if (c.job) {
            jobFileHolds(*c.job);
        }
        if (c.alreadyMarked) {
            platform().addFile("/d" + marker);
        }
        handler.createLogDir();
        SCOPED_TRACE(::testing::PrintToString(c.job));
        EXPECT_TRUE(platform().exists("/Library/Logs/PostgreSQL"));
        if (c.rewritten) {
            EXPECT_EQ(platform().entries[kJobFile].propertyList, jobFileWith(*c.rewritten));
        } else {
            EXPECT_THAT(platform().callsStartingWith("writePropertyList"), IsEmpty());
        }
        EXPECT_EQ(platform().callsStartingWith("createFile"), c.markers);
        EXPECT_EQ(platform().requestedStates, c.states);
    }
}

TEST_F(Housekeeping, FoldersThatCannotBeCreatedAreLoggedAndHoldNothingBack) {
    platform().entries.erase("/var/pgsql_socket");
    platform().createDirectoryFailures["/var/pgsql_socket"] = "Permission denied";
    platform().createDirectoryFailures["/Library/Logs/PostgreSQL"] = "Not a directory";
    jobFileHolds({"p", "-D", "/d"});
    handler.doIdleAtCount(0);
    EXPECT_THAT(platform().log,
                ElementsAre(testing::LogEntry{LOG_ERR,
                                              "velnor_postgres: Error trying to create socket "
                                              "folder /var/pgsql_socket: Permission denied"},
                            testing::LogEntry{LOG_ERR,
                                              "velnor_postgres: Error trying to create log folder "
                                              "/Library/Logs/PostgreSQL: Not a directory"}));
    EXPECT_TRUE(platform().exists("/d/.10.7.4_log_directory_updated"));
}

TEST_F(Housekeeping, ArgumentsWithoutAFolderFlagEndTheCallAfterTheFolderIsCreated) {
    jobFileHolds({"/usr/bin/postgres", "-c", kOld});
    EXPECT_THROW(handler.createLogDir(), std::out_of_range);
    EXPECT_TRUE(platform().exists("/Library/Logs/PostgreSQL"));
    EXPECT_THAT(platform().requestedStates, IsEmpty());
}

}  // namespace
}  // namespace velnor::postgres
