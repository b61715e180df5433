#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/LaunchArgumentCodec.h"

namespace velnor::postgres {
namespace {

using ::testing::ElementsAre;

std::string text(const PlistDictionary& dictionary, const std::string& key) {
    const PlistValue* value = dictionary.find(key);
    return value && value->asString() ? *value->asString() : "<missing>";
}

TEST(SettingSplit, TakesExactlyTwoPiecesAsKeyAndValue) {
    struct Case {
        const char* element;
        bool isSetting;
        const char* key;
        const char* value;
    };
    const Case cases[] = {
        {"log_connections=on", true, "log_connections", "on"},
        {"log_line_prefix=%t ", true, "log_line_prefix", "%t "},
        {"listen_addresses=", true, "listen_addresses", ""},
        {"=x", true, "", "x"},
        {"=", true, "", ""},
        {"a=b=c", false, "", ""},
        {"==", false, "", ""},
        {"-c", false, "", ""},
        {"/usr/bin/postgres", false, "", ""},
        {"", false, "", ""},
    };
    for (const auto& c : cases) {
        const auto setting = splitSetting(c.element);
        ASSERT_EQ(setting.has_value(), c.isSetting) << "element \"" << c.element << "\"";
        if (setting) {
            EXPECT_EQ(setting->key, c.key) << "element \"" << c.element << "\"";
            EXPECT_EQ(setting->value, c.value) << "element \"" << c.element << "\"";
        }
    }
}

TEST(SettingScan, LastOccurrenceWinsAndShapeAloneCounts) {
    const auto settings = scanSettings(LaunchArguments{"a=1", "-D", "x=y", "-c", "a=2", "b=c=d"});
    EXPECT_EQ(settings.size(), 2u);
    EXPECT_EQ(text(settings, "a"), "2");
    EXPECT_EQ(text(settings, "x"), "y");
    EXPECT_TRUE(scanSettings(std::nullopt).empty());
}

TEST(DataFolderLookup, TakesTheElementAfterTheFirstFlagUnchecked) {
    EXPECT_EQ(lookUpDataFolder(LaunchArguments{"p", "-D", "/var/pgsql", "-D", "/other"}),
              "/var/pgsql");
    EXPECT_EQ(lookUpDataFolder(LaunchArguments{"p", "-D", "-c", "/var/pgsql"}), "-c");
    EXPECT_EQ(lookUpDataFolder(LaunchArguments{"p", "-D", "a=b"}), "a=b");
    EXPECT_EQ(lookUpDataFolder(std::nullopt), std::nullopt);
}

TEST(DataFolderLookup, FailsWithARangeErrorWithoutAFolderAfterTheFlag) {
    EXPECT_THROW(lookUpDataFolder(LaunchArguments{"p", "-c", "a=b"}), std::out_of_range);
    EXPECT_THROW(lookUpDataFolder(LaunchArguments{"p", "-D"}), std::out_of_range);
    EXPECT_THROW(lookUpDataFolder(LaunchArguments{"p", "-d", "/var/pgsql"}), std::out_of_range);
    EXPECT_THROW(lookUpDataFolder(LaunchArguments{}), std::out_of_range);
}

TEST(DataFolderScan, FindsTheFirstElementAfterAFlagThatIsNeitherSettingNorFlag) {
    struct Case {
        LaunchArguments arguments;
        const char* dataDir;
    };
    const Case cases[] = {
        {{"p", "-D", "-D", "/P"}, "/P"},
        {{"p", "-D", "-c", "/P"}, "-c"},
        {{"p", "-D", "a=1", "/P"}, "/P"},
        {{"p", "-D", "/one", "-D", "/two"}, "/two"},
        {{"p", "-D", "/data=x", "-c", "k=v"}, "-c"},
        {{"p", "-D"}, "<missing>"},
        {{"p", "/P"}, "<missing>"},
        {{"p", "-D", "/P", "-c", "dataDir=/later"}, "/later"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(text(scanSettingsAndDataFolder(c.arguments), kDataDirKey), c.dataDir)
            << ::testing::PrintToString(c.arguments);
    }
    const auto settings = scanSettingsAndDataFolder(LaunchArguments{"p", "-D", "a=1", "/P"});
    EXPECT_EQ(text(settings, "a"), "1");
}

TEST(DataFolderSlot, TakesPositionTwoWhateverStandsThere) {
    EXPECT_EQ(dataFolderSlot(LaunchArguments{"p", "-c", "a=b", "-D", "/P"}), "a=b");
    EXPECT_EQ(dataFolderSlot(std::nullopt), std::nullopt);
    EXPECT_THROW(dataFolderSlot(LaunchArguments{"p", "-D"}), std::out_of_range);
}

TEST(VectorComposition, WritesTheFolderThenSortedSettings) {
    PlistDictionary settings;
    settings.set("b", PlistValue("2"));
    settings.set("a", PlistValue::integer(-7));
    settings.set("Z", PlistValue("upper"));
    settings.set("_x", PlistValue("under"));
    const auto composed = composeArguments(
        LaunchArguments{"/usr/bin/postgres", "junk", "/var/pgsql", "-D", "/no"}, settings);
    EXPECT_THAT(composed, ElementsAre("/usr/bin/postgres", "-D", "/var/pgsql", "-c", "Z=upper",
                                      "-c", "_x=under", "-c", "a=-7", "-c", "b=2"));
}

TEST(VectorComposition, PlacesDataDirInFrontOfKeysThatSortBeforeIt) {
    PlistDictionary settings;
    settings.set("Alpha", PlistValue("1"));
    settings.set("dataDir", PlistValue("/new"));
    settings.set("zeta", PlistValue("2"));
    const auto composed = composeArguments(LaunchArguments{"/bin/pg", "-D", "/old"}, settings);
    EXPECT_THAT(composed, ElementsAre("/bin/pg", "-D", "/new", "-c", "Alpha=1", "-c", "zeta=2"));
}

TEST(VectorComposition, FailsWhereTheFolderCannotBePlaced) {
    PlistDictionary settings;
    settings.set("a", PlistValue("1"));
    EXPECT_THROW(composeArguments(LaunchArguments{"p", "-D"}, settings), std::out_of_range);
    EXPECT_THROW(composeArguments(std::nullopt, PlistDictionary{}), std::out_of_range);
    // Without a stored vector, "A" lands first, so "-D" fits, but there is no folder to insert.
    PlistDictionary upper;
    upper.set("A", PlistValue("1"));
    EXPECT_THROW(composeArguments(std::nullopt, upper), std::invalid_argument);
    // With "dataDir" and a key before it, the vector is written without an executable.
    upper.set("dataDir", PlistValue("/d"));
    EXPECT_THAT(composeArguments(std::nullopt, upper), ElementsAre("-c", "-D", "/d", "A=1"));
}

TEST(DefaultVector, HasTwentyFiveElementsInItsOwnOrder) {
    EXPECT_THAT(
        defaultArguments("/data"),
        ElementsAre("/usr/bin/postgres", "-D", "/data", "-c", "listen_addresses=", "-c",
                    "log_connections=on", "-c", "log_directory=/Library/Logs/PostgreSQL", "-c",
                    "log_filename=PostgreSQL.log", "-c", "log_lock_waits=on", "-c",
                    "log_statement=ddl", "-c", "log_line_prefix=%t ", "-c", "logging_collector=on",
                    "-c", "unix_socket_directory=/var/pgsql_socket", "-c",
                    "unix_socket_group=_postgres", "-c", "unix_socket_permissions=0770"));
}

}  // namespace
}  // namespace velnor::postgres
