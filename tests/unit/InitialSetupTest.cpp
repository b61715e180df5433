#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "HandlerTest.h"
#include "config/LaunchArgumentCodec.h"

namespace velnor::postgres {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

PlistDictionary success(const std::string& folder) {
    return {{"command", "initialSetup"},
            {"configuration", PlistDictionary{{"dataLocation", folder}}},
            {"status", PlistValue::integer(0)}};
}

// A fresh setup, with and without a location, and a location where a file stands, are shown
// against a real server; an upgrade and the failures below only here.
using InitialSetup = testing::HandlerTest;

TEST_F(InitialSetup, UpgradeKeepsTheStoredFolderAndAcceptsBooleansIntegersAndWords) {
    const std::pair<PlistValue, const char*> cases[] = {
        {PlistValue::boolean(true), "/kept"}, {PlistValue::boolean(false), "/asked"},
        {PlistValue::integer(0), "/asked"},   {PlistValue::integer(2), "/kept"},
        {PlistValue("YES"), "/kept"},         {PlistValue("true"), "/kept"},
        {PlistValue("no"), "/asked"},         {PlistValue("0"), "/asked"},
    };
    platform().addFolder("/asked");
    for (const auto& [upgrade, folder] : cases) {
        platform().jobArguments = LaunchArguments{"/usr/bin/postgres", "-c", "a=b", "-D", "/kept"};
        EXPECT_EQ(handler.initialSetupWithRequest(
                      {{"upgrade", upgrade}, {"dataLocation", PlistValue("/asked")}}),
                  success(folder))
            << ::testing::PrintToString(upgrade.asString() ? *upgrade.asString() : "");
        EXPECT_EQ(platform().storedArguments.back(), defaultArguments(folder));
    }
    EXPECT_THAT(platform().callsStartingWith("createDirectory /kept"), IsEmpty());
}

TEST_F(InitialSetup, UpgradeWithoutAStoredFolderFallsBackToTheDefault) {
    EXPECT_EQ(handler.initialSetupWithRequest({{"upgrade", PlistValue::boolean(true)}}),
              success("/var/pgsql"));
    EXPECT_THAT(platform().logMessages(),
                ElementsAre("velnor_postgres: Couldn't get dataDir from existing settings, "
                            "using default"));
}

TEST_F(InitialSetup, AttributesThatCannotBeSetAreReportedWithoutTheReasonInTheLog) {
    platform().setAttributesFailures["/srv/db"] = "unknown account \"_postgres\"";
    EXPECT_EQ(handler.initialSetupWithRequest({{"dataLocation", PlistValue("/srv/db")}}),
              (PlistDictionary{{"error", PlistValue("unknown account \"_postgres\"")}}));
    EXPECT_THAT(platform().logMessages(),
                ElementsAre("velnor_postgres: Created dataLocation folder /srv/db",
                            "velnor_postgres: Error trying to set attributes of dataLocation "
                            "folder /srv/db"));
    EXPECT_EQ(platform().storedArguments.back(), defaultArguments("/srv/db"));
}

TEST_F(InitialSetup, MalformedRequestsChangeNothing) {
    for (const PlistDictionary& request :
         {PlistDictionary{{"upgrade", PlistValue("perhaps")}},
          PlistDictionary{{"upgrade", PlistValue(PlistArray{})}},
          PlistDictionary{{"dataLocation", PlistValue::integer(5)}}}) {
        EXPECT_THROW(handler.initialSetupWithRequest(request), std::invalid_argument);
    }
    EXPECT_THAT(platform().calls, IsEmpty());
}

}  // namespace
}  // namespace velnor::postgres
