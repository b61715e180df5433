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
    const std::pair<const char*, const char*> cases[] = {
        {"log_line_prefix=%t ", "log_line_prefix|%t "},
        {"listen_addresses=", "listen_addresses|"},
        {"=x", "|x"},
        {"=", "|"},
        {"a=b=c", nullptr},
        {"==", nullptr},
        {"-c", nullptr},
        {"", nullptr},
    };
    for (const auto& [element, split] : cases) {
        const auto setting = splitSetting(element);
        EXPECT_EQ(setting ? setting->key + "|" + setting->value : "<none>",
                  split ? split : "<none>")
            << element;
    }
    const auto settings = scanSettings(LaunchArguments{"a=1", "-D", "x=y", "-c", "a=2", "b=c=d"});
    EXPECT_EQ(settings.size(), 2u);
    EXPECT_EQ(text(settings, "a"), "2") << "the last occurrence wins";
    EXPECT_TRUE(scanSettings(std::nullopt).empty());
}

TEST(DataFolder, LookupSlotAndScanEachReadItTheirOwnWay) {
    EXPECT_EQ(lookUpDataFolder(LaunchArguments{"p", "-D", "/var/pgsql", "-D", "/o"}), "/var/pgsql");
    EXPECT_EQ(lookUpDataFolder(LaunchArguments{"p", "-D", "-c", "/var/pgsql"}), "-c");
    EXPECT_EQ(lookUpDataFolder(std::nullopt), std::nullopt);
    for (const LaunchArguments& arguments :
         {LaunchArguments{"p", "-c", "a=b"}, LaunchArguments{"p", "-D"}, LaunchArguments{}}) {
        EXPECT_THROW(lookUpDataFolder(arguments), std::out_of_range);
    }
    EXPECT_EQ(dataFolderSlot(LaunchArguments{"p", "-c", "a=b", "-D", "/P"}), "a=b");
    EXPECT_THROW(dataFolderSlot(LaunchArguments{"p", "-D"}), std::out_of_range);

    const std::pair<LaunchArguments, const char*> scans[] = {
        {{"p", "-D", "-D", "/P"}, "/P"},
        {{"p", "-D", "-c", "/P"}, "-c"},
        {{"p", "-D", "a=1", "/P"}, "/P"},
        {{"p", "-D", "/one", "-D", "/two"}, "/two"},
        {{"p", "-D"}, "<missing>"},
        {{"p", "/P"}, "<missing>"},
        {{"p", "-D", "/P", "-c", "dataDir=/later"}, "/later"},
    };
    for (const auto& [arguments, dataDir] : scans) {
        EXPECT_EQ(text(scanSettingsAndDataFolder(arguments), kDataDirKey), dataDir)
            << ::testing::PrintToString(arguments);
    }
}

TEST(VectorComposition, WritesTheFolderThenSortedSettings) {
    const PlistDictionary settings{{"b", PlistValue("2")},
                                   {"a", PlistValue::integer(-7)},
                                   {"Z", PlistValue("upper")},
                                   {"_x", PlistValue("under")}};
    EXPECT_THAT(
        composeArguments(LaunchArguments{"/usr/bin/postgres", "junk", "/d", "-D", "/no"}, settings),
        ElementsAre("/usr/bin/postgres", "-D", "/d", "-c", "Z=upper", "-c", "_x=under", "-c",
                    "a=-7", "-c", "b=2"));
    const PlistDictionary withFolder{
        {"Alpha", PlistValue("1")}, {"dataDir", PlistValue("/new")}, {"zeta", PlistValue("2")}};
    EXPECT_THAT(composeArguments(LaunchArguments{"/bin/pg", "-D", "/old"}, withFolder),
                ElementsAre("/bin/pg", "-D", "/new", "-c", "Alpha=1", "-c", "zeta=2"));
}

TEST(VectorComposition, FailsWhereTheFolderCannotBePlaced) {
    EXPECT_THROW(composeArguments(LaunchArguments{"p", "-D"}, {{"a", PlistValue("1")}}),
                 std::out_of_range);
    EXPECT_THROW(composeArguments(std::nullopt, PlistDictionary{}), std::out_of_range);
    // Without a stored vector, "A" lands first, so "-D" fits, but there is no folder to insert.
    EXPECT_THROW(composeArguments(std::nullopt, {{"A", PlistValue("1")}}), std::invalid_argument);
    // With "dataDir" and a key before it, the vector is written without an executable.
    EXPECT_THAT(
        composeArguments(std::nullopt, {{"A", PlistValue("1")}, {"dataDir", PlistValue("/d")}}),
        ElementsAre("-c", "-D", "/d", "A=1"));
}

}  // namespace
}  // namespace velnor::postgres
