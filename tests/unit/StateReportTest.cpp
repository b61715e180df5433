#include <gtest/gtest.h>

#include "HandlerTest.h"

namespace velnor::postgres {
namespace {

PlistDictionary variantRequest(PlistValue variant) {
    return {{"variant", std::move(variant)}};
}

using StateReport = testing::HandlerTest;

TEST_F(StateReport, OnlyAVariantBeginningWithWithDetailsAsksForTheDetails) {
    platform().jobRunning = true;
    for (const PlistValue& variant :
         {PlistValue(), PlistValue(""), PlistValue("WithDetails"), PlistValue(" withDetails")}) {
        EXPECT_EQ(handler.getStateWithRequest(variant.isAbsent() ? PlistDictionary()
                                                                 : variantRequest(variant)),
                  (PlistDictionary{{"state", "RUNNING"}}));
    }
    EXPECT_TRUE(platform().callsStartingWith("getLaunchDaemonServiceConfigArgs").empty());
    EXPECT_THROW(handler.getStateWithRequest(variantRequest(PlistValue::boolean(true))),
                 std::invalid_argument);
}

// The folder's condition is shown against a real server; here, where PG_VERSION is looked for
// when the folder ends in a slash or is empty, and the job files that end the report.
TEST_F(StateReport, DataFolderMarkerPathAndFoldersThatEndTheReport) {
    for (const char* folder : {"/d/", ""}) {
        SetUp();
        platform().addFile(std::string(folder) + "PG_VERSION");
        platform().jobArguments = LaunchArguments{"/usr/bin/postgres", "-D", folder};
        const auto details = handler.getStateWithRequest(variantRequest(PlistValue("withDetails")));
        EXPECT_EQ(details.find("dataDirHasBeenInitialized")->asBoolean(), true) << folder;
    }
    platform().jobArguments = LaunchArguments{"/usr/bin/postgres", "-c", "a=b"};
    EXPECT_THROW(handler.getStateWithRequest(variantRequest(PlistValue("withDetails"))),
                 std::out_of_range);
    platform().jobArguments = std::nullopt;
    EXPECT_THROW(handler.getStateWithRequest(variantRequest(PlistValue("withDetails"))),
                 std::invalid_argument);
}

}  // namespace
}  // namespace velnor::postgres
