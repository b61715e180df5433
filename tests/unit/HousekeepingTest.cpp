#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>

#include "FakePlatform.h"
#include "config/LaunchArgumentCodec.h"
#include "handler/PostgresRequestHandler.h"

namespace velnor::postgres {
namespace {

using ::testing::ElementsAre;
using testing::FakeEntry;
using ::testing::IsEmpty;
using testing::LogEntry;

constexpr char kJobFile[] = "/System/Library/LaunchDaemons/org.postgresql.postgres.plist";
constexpr char kMarker[] = "/var/pgsql/.10.7.4_log_directory_updated";

PlistDictionary jobFileWith(const LaunchArguments& arguments) {
    return {{"Label", "org.postgresql.postgres"},
            {"KeepAlive", PlistValue::boolean(false)},
            {"ProgramArguments", PlistArray(arguments.begin(), arguments.end())}};
}

class Housekeeping : public testing::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        platform().addFolder("/var/pgsql_socket");
        platform().addFolder("/Library/Logs");
        platform().addFolder("/var/pgsql");
        platform().serverFollowsJob = true;
    }
    // A job file holding arguments, seen alike by the host library and by a direct read.
    void jobFileHolds(const LaunchArguments& arguments) {
        platform().jobArguments = arguments;
        platform().addFile(kJobFile);
        platform().entries[kJobFile].propertyList = jobFileWith(arguments);
    }
    LaunchArguments argumentsWithLogDirectory(const std::string& first, const std::string& second) {
        return {"/usr/bin/postgres", "-D", "/var/pgsql", "-c", first, "-c", "a=b", "-c", second};
    }
    PostgresRequestHandler handler;
};

TEST_F(Housekeeping, WithBothFoldersInPlaceCostsTwoExistenceTests) {
    platform().addFolder("/Library/Logs/PostgreSQL");
    for (std::int32_t count : {0, -1, INT_MAX}) {
        platform().calls.clear();
        EXPECT_EQ(handler.doIdleAtCount(count), 0);
        EXPECT_THAT(platform().calls, ElementsAre("fileExists /var/pgsql_socket",
                                                  "fileExists /Library/Logs/PostgreSQL"));
    }
}

TEST_F(Housekeeping, AFileInPlaceOfAFolderCountsAsPresent) {
    platform().entries.erase("/var/pgsql_socket");
    platform().addFile("/var/pgsql_socket");
    platform().addFile("/Library/Logs/PostgreSQL");
    handler.doIdleAtCount(0);
    EXPECT_THAT(platform().callsStartingWith("createDirectory"), IsEmpty());
    EXPECT_THAT(platform().log, IsEmpty());
}

TEST_F(Housekeeping, CreatesTheSocketFolderForTheServiceAccount) {
    platform().entries.erase("/var/pgsql_socket");
    handler.createSocketDir();
    const FakeEntry* folder = platform().entry("/var/pgsql_socket");
    ASSERT_NE(folder, nullptr);
    ASSERT_TRUE(folder->attributes.has_value());
    EXPECT_EQ(folder->attributes->permissions, 0750u);
    EXPECT_EQ(folder->attributes->owner, "_postgres");
    EXPECT_EQ(folder->attributes->group, "_postgres");
    EXPECT_THAT(platform().log,
                ElementsAre(LogEntry{LOG_NOTICE,
                                     "velnor_postgres: Created socket folder /var/pgsql_socket"}));
}

TEST_F(Housekeeping, ASocketFolderThatCannotBeCreatedIsLogged) {
    platform().entries.erase("/var/pgsql_socket");
    platform().createDirectoryFailures["/var/pgsql_socket"] = "Permission denied";
    handler.createSocketDir();
    EXPECT_THAT(platform().log,
                ElementsAre(LogEntry{LOG_ERR,
                                     "velnor_postgres: Error trying to create socket folder "
                                     "/var/pgsql_socket: Permission denied"}));
}

TEST_F(Housekeeping, MigrationReplacesOnlyTheFirstOldSettingThenMarksAndRestarts) {
    jobFileHolds(
        argumentsWithLogDirectory("log_directory=/Library/Logs", "log_directory=/Library/Logs"));
    handler.createLogDir();

    const FakeEntry* logFolder = platform().entry("/Library/Logs/PostgreSQL");
    ASSERT_NE(logFolder, nullptr);
    EXPECT_EQ(logFolder->attributes->permissions, 0755u);
    EXPECT_EQ(platform().entries[kJobFile].propertyList,
              jobFileWith(argumentsWithLogDirectory("log_directory=/Library/Logs/PostgreSQL",
                                                    "log_directory=/Library/Logs")));
    EXPECT_EQ(platform().callsStartingWith("writePropertyListDictionary").size(), 1u);
    const FakeEntry* marker = platform().entry(kMarker);
    ASSERT_NE(marker, nullptr);
    EXPECT_EQ(marker->attributes->permissions, 0600u);
    EXPECT_EQ(marker->attributes->owner, "_postgres");
    EXPECT_THAT(platform().requestedStates, ElementsAre(0, 1));
    EXPECT_THAT(platform().logMessages(),
                ElementsAre("velnor_postgres: Created log folder /Library/Logs/PostgreSQL",
                            "velnor_postgres: Updated log directory in launchd plist file"));
    // The nested stop and start skip the housekeeping: no folder test after the marker.
    EXPECT_EQ(platform().callsStartingWith("fileExists").size(), 2u);
}

TEST_F(Housekeeping, OldSettingInOtherFormIsNotMatchedButTheJobIsStillMarked) {
    jobFileHolds(
        argumentsWithLogDirectory("log_directory=/Library/Logs/", "LOG_DIRECTORY=/Library/Logs"));
    handler.createLogDir();
    EXPECT_THAT(platform().callsStartingWith("writePropertyListDictionary"), IsEmpty());
    EXPECT_TRUE(platform().exists(kMarker));
    EXPECT_THAT(platform().requestedStates, ElementsAre(0, 1));
}

TEST_F(Housekeeping, AMarkerInPlaceMeansTheFolderIsCreatedAndNothingElse) {
    jobFileHolds(argumentsWithLogDirectory("log_directory=/Library/Logs", "x=y"));
    platform().addFile(kMarker);
    handler.createLogDir();
    EXPECT_TRUE(platform().exists("/Library/Logs/PostgreSQL"));
    EXPECT_THAT(platform().callsStartingWith("readPropertyListDictionary"), IsEmpty());
    EXPECT_THAT(platform().requestedStates, IsEmpty());
}

TEST_F(Housekeeping, ALogFolderThatCannotBeCreatedDoesNotHoldTheMigrationBack) {
    jobFileHolds(argumentsWithLogDirectory("log_directory=/Library/Logs", "x=y"));
    platform().createDirectoryFailures["/Library/Logs/PostgreSQL"] = "Not a directory";
    handler.createLogDir();
    EXPECT_EQ(platform().log.front(),
              (LogEntry{LOG_ERR,
                        "velnor_postgres: Error trying to create log folder "
                        "/Library/Logs/PostgreSQL: Not a directory"}));
    EXPECT_TRUE(platform().exists(kMarker));
    EXPECT_THAT(platform().requestedStates, ElementsAre(0, 1));
}

TEST_F(Housekeeping, ArgumentsWithoutAFolderFlagEndTheCallAfterTheFolderIsCreated) {
    jobFileHolds({"/usr/bin/postgres", "-c", "log_directory=/Library/Logs"});
    EXPECT_THROW(handler.createLogDir(), std::out_of_range);
    EXPECT_TRUE(platform().exists("/Library/Logs/PostgreSQL"));
    EXPECT_THAT(platform().callsStartingWith("createFile"), IsEmpty());
    EXPECT_THAT(platform().requestedStates, IsEmpty());
}

TEST_F(Housekeeping, AnUnreadableJobFileGivesTheNullMarkerPathAndStillRestarts) {
    handler.createLogDir();
    EXPECT_THAT(platform().callsStartingWith("fileExists (null)"),
                ElementsAre("fileExists (null)/.10.7.4_log_directory_updated"));
    EXPECT_THAT(platform().callsStartingWith("writePropertyListDictionary"), IsEmpty());
    EXPECT_THAT(platform().callsStartingWith("createFile"),
                ElementsAre("createFile (null)/.10.7.4_log_directory_updated"));
    EXPECT_THAT(platform().requestedStates, ElementsAre(0, 1));
}

TEST_F(Housekeeping, TheMarkerPathKeepsTheFolderTextAsItStands) {
    jobFileHolds({"/usr/bin/postgres", "-D", "/var/pgsql/"});
    handler.createLogDir();
    EXPECT_THAT(platform().callsStartingWith("createFile"),
                ElementsAre("createFile /var/pgsql//.10.7.4_log_directory_updated"));
}

}  // namespace
}  // namespace velnor::postgres
