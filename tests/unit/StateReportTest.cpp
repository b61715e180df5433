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

// Missing folders and plain files are shown against a real server; these the fake alone makes.
TEST_F(StateReport, DataFolderConditions) {
    struct Case {
        std::function<void(testing::FakePlatform&)> stage;
        const char* folder;
        bool exists, isDirectory, initialised;
    };
    const Case cases[] = {
        {[](auto& p) {
             p.addFolder("/real");
             p.addFile("/real/PG_VERSION");
             p.addLink("/d", "/real");
             p.addLink("/d/PG_VERSION", "/real/PG_VERSION");
         },
         "/d", true, true, true},
        {[](auto& p) { p.addLink("/d", "/nowhere"); }, "/d", false, false, false},
        {[](auto& p) {
             p.addFolder("/d");
             p.addFolder("/d/PG_VERSION");
         },
         "/d", true, true, true},
        {[](auto& p) {
             p.addFolder("/d/");
             p.addFile("/d/PG_VERSION");
         },
         "/d/", true, true, true},
        {[](auto& p) { p.addFile("PG_VERSION"); }, "", false, false, true},
    };
    for (const auto& c : cases) {
        SetUp();
        c.stage(platform());
        platform().jobArguments = LaunchArguments{"/usr/bin/postgres", "-D", c.folder};
        const auto details = handler.getStateWithRequest(variantRequest(PlistValue("withDetails")));
        const auto flag = [&](const char* key) { return details.find(key)->asBoolean().value(); };
        EXPECT_EQ(*details.find("dataDir")->asString(), c.folder);
        EXPECT_EQ(flag("dataDirExists"), c.exists) << c.folder;
        EXPECT_EQ(flag("dataDirIsDirectory"), c.isDirectory) << c.folder;
        EXPECT_EQ(flag("dataDirHasBeenInitialized"), c.initialised) << c.folder;
    }
}

TEST_F(StateReport, DetailsWithoutAFolderEndWithoutAResponse) {
    platform().jobArguments = LaunchArguments{"/usr/bin/postgres", "-c", "a=b"};
    EXPECT_THROW(handler.getStateWithRequest(variantRequest(PlistValue("withDetails"))),
                 std::out_of_range);
    platform().jobArguments = std::nullopt;
    EXPECT_THROW(handler.getStateWithRequest(variantRequest(PlistValue("withDetails"))),
                 std::invalid_argument);
}

}  // namespace
}  // namespace velnor::postgres
