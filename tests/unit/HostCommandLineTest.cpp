// How the host's command line turns into an operation and its argument.
#include <gtest/gtest.h>

#include <initializer_list>
#include <vector>

#include "CommandLine.h"

namespace velnor::host {
namespace {

ParsedCommandLine parse(std::initializer_list<std::string_view> arguments) {
    std::vector<std::string_view> list(arguments);
    return parseCommandLine(list);
}

Command parseValid(std::initializer_list<std::string_view> arguments) {
    ParsedCommandLine parsed = parse(arguments);
    EXPECT_TRUE(parsed.command.has_value()) << "refused: " << parsed.error;
    return parsed.command.value_or(Command{});
}

const PlistDictionary& requestOf(const Command& command) {
    static const PlistDictionary none;
    const PlistDictionary* request = std::get_if<PlistDictionary>(&command.argument);
    EXPECT_NE(request, nullptr) << command.operation << " was not given a request";
    return request != nullptr ? *request : none;
}

PlistDictionary dictionary(std::initializer_list<std::pair<const char*, PlistValue>> entries) {
    PlistDictionary result;
    for (const auto& [key, value] : entries) {
        result.set(key, value);
    }
    return result;
}

TEST(HostCommandLine, CallKeepsItsArgumentRawUntilTheOperationIsKnown) {
    Command command = parseValid({"--plugin", "/tmp/p.so", "--json", "call", "anything", "-"});
    EXPECT_EQ(command.pluginPath, "/tmp/p.so");
    EXPECT_TRUE(command.json);
    EXPECT_FALSE(command.human) << "call prints a property list, not the human form";
    EXPECT_EQ(command.operation, "anything");
    ASSERT_TRUE(std::holds_alternative<RawArgument>(command.argument));
    EXPECT_EQ(std::get<RawArgument>(command.argument).text, "-");

    Command bare = parseValid({"--plugin=/tmp/q.so", "call", "getStateWithRequest"});
    EXPECT_EQ(bare.pluginPath, "/tmp/q.so");
    EXPECT_FALSE(bare.json);
    EXPECT_EQ(std::get<RawArgument>(bare.argument).text, std::nullopt)
        << "no argument must stay absent, not become an empty string";
}

TEST(HostCommandLine, FriendlyVerbsNameTheirOperationAndRequest) {
    Command status = parseValid({"status"});
    EXPECT_EQ(status.operation, "getStateWithRequest");
    EXPECT_TRUE(status.human);
    EXPECT_EQ(requestOf(status), PlistDictionary());

    Command details = parseValid({"status", "--details"});
    EXPECT_EQ(requestOf(details), dictionary({{"variant", "withDetails"}}));

    EXPECT_EQ(parseValid({"settings"}).operation, "readSettingsWithRequest");
    EXPECT_EQ(requestOf(parseValid({"settings"})), PlistDictionary());
    EXPECT_EQ(parseValid({"log-path"}).operation, "getLogPathsWithRequest");

    for (auto [verb, operation] : {std::pair{"start", "startServiceWithVariant"},
                                   std::pair{"stop", "stopServiceWithVariant"},
                                   std::pair{"restart", "recycleServiceWithVariant"}}) {
        Command command = parseValid({verb});
        EXPECT_EQ(command.operation, operation) << verb;
        ASSERT_TRUE(std::holds_alternative<PlistValue>(command.argument)) << verb;
        EXPECT_TRUE(std::get<PlistValue>(command.argument).isAbsent())
            << verb << " must pass no variant at all";
    }

    Command idle = parseValid({"idle"});
    EXPECT_EQ(idle.operation, "doIdleAtCount");
    EXPECT_EQ(std::get<std::int32_t>(idle.argument), 0);
}

TEST(HostCommandLine, SettingsSplitAtTheFirstEqualsSignIntoStrings) {
    Command command =
        parseValid({"settings", "port=5433", "search_path=a=b", "listen_addresses=", "port=5434"});
    EXPECT_EQ(command.operation, "writeSettingsWithRequest");
    PlistDictionary configuration =
        dictionary({{"port", "5434"}, {"search_path", "a=b"}, {"listen_addresses", ""}});
    EXPECT_EQ(requestOf(command), dictionary({{"configuration", configuration}}))
        << "values stay strings, a later KEY wins, an empty value is a value";
}

TEST(HostCommandLine, SetupAsksForOneKindOfSetup) {
    EXPECT_EQ(requestOf(parseValid({"setup"})), PlistDictionary());
    EXPECT_EQ(requestOf(parseValid({"setup", "--data-location", "/srv/db"})),
              dictionary({{"dataLocation", "/srv/db"}}));
    EXPECT_EQ(requestOf(parseValid({"setup", "--data-location=/srv/db"})),
              dictionary({{"dataLocation", "/srv/db"}}));
    EXPECT_EQ(requestOf(parseValid({"setup", "--upgrade"})),
              dictionary({{"upgrade", PlistValue::boolean(true)}}))
        << "upgrade must be the boolean true, not an integer or a string";
}

TEST(HostCommandLine, RefusesWhatTheUsageDoesNotAllow) {
    const std::vector<std::vector<std::string_view>> refused = {
        {},
        {"--json"},
        {"--plugin"},
        {"--plugin="},
        {"--verbose", "status"},
        {"frobnicate"},
        {"call"},
        {"call", ""},
        {"call", "op", "argument", "extra"},
        {"status", "--detail"},
        {"status", "--details", "--details"},
        {"start", "now"},
        {"idle", "3"},
        {"settings", "port"},
        {"settings", "=5432"},
        {"settings", "port=1", "--json"},
        {"setup", "--upgrade", "--data-location", "/srv/db"},
        {"setup", "--data-location"},
        {"setup", "--data-location="},
        {"setup", "--fresh"},
        {"status", "--json"},
    };
    for (const auto& arguments : refused) {
        std::string line;
        for (std::string_view argument : arguments) {
            line += std::string(argument) + " ";
        }
        ParsedCommandLine parsed = parseCommandLine(arguments);
        EXPECT_FALSE(parsed.command.has_value()) << "accepted: " << line;
        EXPECT_FALSE(parsed.error.empty()) << "refused without a reason: " << line;
    }
}

TEST(HostCommandLine, IdleCountIsExactlyASigned32BitInteger) {
    EXPECT_EQ(parseIdleCount("0"), 0);
    EXPECT_EQ(parseIdleCount("17"), 17);
    EXPECT_EQ(parseIdleCount("+17"), 17);
    EXPECT_EQ(parseIdleCount("-5"), -5);
    EXPECT_EQ(parseIdleCount("2147483647"), 2147483647);
    EXPECT_EQ(parseIdleCount("-2147483648"), INT32_MIN);
    for (std::string_view bad :
         {"", "+", "-", "2147483648", "-2147483649", "1.5", "0x10", " 1", "1 ", "+-1", "ten"}) {
        EXPECT_EQ(parseIdleCount(bad), std::nullopt) << "\"" << bad << "\"";
    }
}

TEST(HostCommandLine, RawArgumentReadAsTheOperationsStyle) {
    std::string error;
    auto variant = interpretRawArgument(OperationStyle::Service, RawArgument{"-"}, &error);
    ASSERT_TRUE(variant.has_value());
    EXPECT_EQ(std::get<PlistValue>(*variant), PlistValue("-"))
        << "for a service operation - is just a variant string";
    auto noVariant = interpretRawArgument(OperationStyle::Service, RawArgument{}, &error);
    EXPECT_TRUE(std::get<PlistValue>(noVariant.value()).isAbsent());

    EXPECT_EQ(std::get<std::int32_t>(
                  interpretRawArgument(OperationStyle::Idle, RawArgument{}, &error).value()),
              0);
    EXPECT_EQ(std::get<std::int32_t>(
                  interpretRawArgument(OperationStyle::Idle, RawArgument{"42"}, &error).value()),
              42);
    EXPECT_FALSE(interpretRawArgument(OperationStyle::Idle, RawArgument{"4e9"}, &error));
    EXPECT_NE(error.find("4e9"), std::string::npos) << error;
}

}  // namespace
}  // namespace velnor::host
