#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "HandlerTest.h"

namespace velnor::postgres {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

PlistDictionary configurationRequest(PlistValue configuration) {
    return {{"configuration", std::move(configuration)}};
}

// The ordinary merge, sort and restart are shown against a real server; these are the job files
// and requests that only the fake makes.
using Settings = testing::HandlerTest;

TEST_F(Settings, ReadRunsTheHousekeepingFirstAndAnUnreadableJobIsAnEmptyConfiguration) {
    platform().addFile("(null)/.10.7.4_log_directory_updated");
    EXPECT_EQ(handler.readSettingsWithRequest({}),
              (PlistDictionary{{"configuration", PlistDictionary{}},
                               {"readStatus", PlistValue::integer(0)}}));
    EXPECT_EQ(platform().calls.front(), "fileExists /var/pgsql_socket");
}

TEST_F(Settings, WriteTakesTheFolderFromPositionTwoAndDropsWhatIsNotASetting) {
    platform().jobArguments =
        LaunchArguments{"/usr/bin/postgres", "-c", "b=2", "-D", "/var/pgsql", "--single", "a=1"};
    handler.writeSettingsWithRequest(configurationRequest(PlistValue(PlistDictionary{
        {"work_mem", PlistValue::integer(4096)}, {"search_path", PlistValue("a=b")}})));
    EXPECT_THAT(platform().storedArguments.back(),
                ElementsAre("/usr/bin/postgres", "-D", "b=2", "-c", "a=1", "-c", "b=2", "-c",
                            "search_path=a=b", "-c", "work_mem=4096"));
    // The value holding "=" is not read back, so the next write drops it.
    handler.writeSettingsWithRequest({});
    EXPECT_THAT(platform().storedArguments.back(),
                ElementsAre("/usr/bin/postgres", "-D", "b=2", "-c", "a=1", "-c", "b=2", "-c",
                            "work_mem=4096"));
}

TEST_F(Settings, WriteWithoutAFolderSlotOrWithAMalformedRequestStoresNothing) {
    const PlistDictionary malformed[] = {
        configurationRequest(PlistValue("log_statement=all")),
        configurationRequest(PlistValue(PlistDictionary{{"a", PlistValue::boolean(true)}})),
        configurationRequest(PlistValue(PlistDictionary{{"a", PlistValue(PlistArray{})}})),
        configurationRequest(PlistValue(PlistDictionary{{"dataDir", PlistValue::integer(1)}})),
    };
    for (const auto& request : malformed) {
        EXPECT_THROW(handler.writeSettingsWithRequest(request), std::invalid_argument);
    }
    EXPECT_THAT(platform().calls, IsEmpty());
    platform().jobArguments = LaunchArguments{"/usr/bin/postgres", "a=b"};
    platform().addFile("(null)/.10.7.4_log_directory_updated");
    EXPECT_THROW(handler.writeSettingsWithRequest({}), std::out_of_range);
    EXPECT_THAT(platform().storedArguments, IsEmpty());
}

}  // namespace
}  // namespace velnor::postgres
