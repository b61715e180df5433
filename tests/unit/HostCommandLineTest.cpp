// How the host's command line turns into an operation and its argument.
#include <gtest/gtest.h>

#include <thread>
#include <tuple>

#include "CommandLine.h"
#include "SettingsCheck.h"

namespace velnor::host {
namespace {

using Arguments = std::vector<std::string_view>;

Command parsed(const Arguments& arguments) {
    support::Result<Command> result = parseCommandLine(arguments);
    EXPECT_TRUE(result.ok()) << "refused: " << (result ? "" : result.message());
    return result ? *result : Command{};
}

TEST(HostCommandLine, CallKeepsItsArgumentRawAndFriendlyVerbsPrepareTheirs) {
    Command command = parsed({"--plugin", "/tmp/p.so", "call", "anything", "--json", "-"});
    EXPECT_EQ(command.pluginPath, "/tmp/p.so");
    EXPECT_TRUE(command.json && !command.human);
    EXPECT_EQ(command.operation, "anything");
    EXPECT_EQ(std::get<RawArgument>(command.argument).text, "-");
    EXPECT_EQ(std::get<RawArgument>(parsed({"call", "op"}).argument).text, std::nullopt);

    Command waiting = parsed({"--wait", "3", "call", "getStateWithRequest"});
    EXPECT_EQ(waiting.lockWait, std::chrono::seconds(3));
    EXPECT_EQ(command.lockWait, std::nullopt) << "without --wait, the lock is awaited for ever";

    // The host's options stand before or after the verb, the verb's only after it.
    for (const Arguments& anywhere : {Arguments{"-q", "--json", "status", "--details"},
                                      {"status", "--details", "--json", "-q"},
                                      {"--json", "status", "-q", "--details"}}) {
        Command status = parsed(anywhere);
        EXPECT_TRUE(status.json && status.quiet && status.verb == "status")
            << ::testing::PrintToString(anywhere);
        EXPECT_EQ(std::get<PlistDictionary>(status.argument),
                  (PlistDictionary{{"variant", "withDetails"}}));
    }
    EXPECT_EQ(parsed({"--version"}).answer, VELNOR_VERSION "\n");
    EXPECT_NE(parsed({"setup", "--help"}).answer->find("--data-location"), std::string::npos);

    const PlistDictionary write{
        {"configuration", PlistDictionary{{"port", "5434"}, {"search_path", "a=b"}, {"x", ""}}}};
    EXPECT_EQ(std::get<PlistDictionary>(
                  parsed({"settings", "port=5433", "search_path=a=b", "x=", "port=5434"}).argument),
              write);
    EXPECT_EQ(std::get<PlistDictionary>(parsed({"setup", "--upgrade"}).argument),
              (PlistDictionary{{"upgrade", PlistValue::boolean(true)}}));
    EXPECT_TRUE(std::get<PlistValue>(parsed({"restart"}).argument).isAbsent());
}

// The one rule for a setting typed as NAME=VALUE, for settings and settings --check alike.
TEST(HostSettingSplit, SplitsAtTheFirstEqualsAfterAName) {
    const std::pair<const char*, const char*> cases[] = {
        {"port=5433", "port|5433"},
        {"search_path=a=b", "search_path|a=b"},  // the value keeps its own "="
        {"x=", "x|"},
        {"=5432", nullptr},
        {"==", nullptr},
        {"port", nullptr},
        {"", nullptr},
    };
    for (const auto& [argument, split] : cases) {
        const auto setting = splitSetting(argument);
        EXPECT_EQ(setting ? setting->first + "|" + setting->second : "<none>",
                  split ? split : "<none>")
            << argument;
    }
}

TEST(HostCommandLine, RefusesWhatTheUsageDoesNotAllow) {
    // clang-format off
    const Arguments refused[] = {
        {}, {"--plugin"}, {"frobnicate"}, {"call"}, {"call", "op", "argument", "extra"},
        {"status", "--details", "--details"}, {"start", "now"}, {"settings", "port"},
        {"settings", "=5432"}, {"setup", "--upgrade", "--data-location", "/srv/db"},
        {"--details", "status"}, {"--wait", "-1", "status"}, {"--wait=1.5", "status"}};
    // clang-format on
    for (const Arguments& arguments : refused) {
        support::Result<Command> result = parseCommandLine(arguments);
        EXPECT_TRUE(!result && !result.message().empty()) << ::testing::PrintToString(arguments);
    }
}

// A thread keeps its parser from one command line to the next: what one set, or left half done
// when it failed, must not reach the next.
TEST(HostCommandLine, AParseKeepsNothingOfTheOneBefore) {
    auto described = [](const Arguments& arguments) {
        support::Result<Command> result = parseCommandLine(arguments);
        if (!result) {
            return "refused: " + result.message();
        }
        const Command& command = *result;
        const auto* raw = std::get_if<RawArgument>(&command.argument);
        return ::testing::PrintToString(
            std::tuple(command.answer.has_value(), command.pluginPath, command.json, command.direct,
                       command.quiet, command.lockWait.has_value(), command.verb, command.operation,
                       raw != nullptr ? raw->text : std::nullopt, command.settingsToCheck,
                       command.argument.index()));
    };
    // clang-format off
    const std::pair<Arguments, Arguments> cases[] = {
        {{"--json", "-q", "--direct", "--wait", "3", "--plugin", "/p.so", "status", "--details"},
         {"status"}},
        {{"call", "op", "-"}, {"call", "op"}},
        {{"settings", "--check", "port=1"}, {"settings"}},
        {{"setup", "--upgrade"}, {"setup", "--data-location", "/srv/db"}},
        {{"status", "--help"}, {"status"}},
        {{"--wait", "x", "status"}, {"status"}},
        {{"status", "--details", "--details"}, {"status", "--details"}},
        {{"frobnicate", "now"}, {"log-path"}},
    };
    // clang-format on
    for (const auto& [before, after] : cases) {
        std::string fresh;
        std::thread([&] { fresh = described(after); }).join();
        (void)parseCommandLine(before);
        EXPECT_EQ(described(after), fresh) << ::testing::PrintToString(before);
    }
}

TEST(HostCommandLine, RawArgumentsAreAnInt32CountOrAVariant) {
    EXPECT_EQ(parseIdleCount("+17"), 17);
    EXPECT_EQ(parseIdleCount("2147483647"), 2147483647);
    EXPECT_EQ(parseIdleCount("-2147483648"), INT32_MIN);
    for (std::string_view bad : {"", "+", "-", "2147483648", "-2147483649", "1.5", " 1", "+-1"}) {
        EXPECT_EQ(parseIdleCount(bad), std::nullopt) << "\"" << bad << "\"";
    }
    EXPECT_EQ(
        std::get<std::int32_t>(interpretRawArgument(OperationStyle::Idle, RawArgument{}).value()),
        0);
    auto tooLarge = interpretRawArgument(OperationStyle::Idle, RawArgument{"4e9"});
    ASSERT_FALSE(tooLarge);
    EXPECT_NE(tooLarge.message().find("4e9"), std::string::npos) << tooLarge.message();
    auto dash = interpretRawArgument(OperationStyle::Service, RawArgument{"-"});
    EXPECT_EQ(std::get<PlistValue>(dash.value()), PlistValue("-")) << "not standard input";
}

}  // namespace
}  // namespace velnor::host
