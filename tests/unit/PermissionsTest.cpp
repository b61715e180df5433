// The one table from verb to polkit action.
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "CommandLine.h"
#include "Permissions.h"

namespace velnor::host {
namespace {

// "ACTION-ID: DOING", "root's: DOING" or "anyone".
std::string described(const Permission& permission) {
    switch (permission.kind) {
        case Permission::Kind::Anyone:
            return "anyone";
        case Permission::Kind::RootOnly:
            return "root's: " + std::string(permission.doing);
        case Permission::Kind::Action:
            break;
    }
    return std::string(actionId(permission.action)) + ": " + std::string(permission.doing);
}

std::string permissionOfCommandLine(std::vector<std::string_view> arguments) {
    support::Result<Command> command = parseCommandLine(arguments);
    return command ? described(permissionForCommand(*command)) : "usage: " + command.message();
}

TEST(Permissions, EachCommandLineNeedsItsVerbsAction) {
    const std::pair<std::vector<std::string_view>, const char*> cases[] = {
        {{"status"}, "org.velnor.postgres.read: read the service's state"},
        {{"status", "--details", "--json"}, "org.velnor.postgres.read: read the service's state"},
        {{"settings"}, "org.velnor.postgres.read: read the settings"},
        {{"log-path"}, "org.velnor.postgres.read: read the log path"},
        {{"start"}, "org.velnor.postgres.operate: start the service"},
        {{"--quiet", "stop"}, "org.velnor.postgres.operate: stop the service"},
        {{"restart"}, "org.velnor.postgres.operate: restart the service"},
        {{"try-restart"}, "org.velnor.postgres.operate: restart the service"},
        {{"idle"}, "org.velnor.postgres.operate: run the housekeeping"},
        {{"settings", "work_mem=12MB"}, "org.velnor.postgres.configure: change the settings"},
        {{"settings", "--check", "work_mem=12MB"}, "org.velnor.postgres.configure: check settings"},
        {{"setup", "--data-location", "/var/pgsql"},
         "org.velnor.postgres.configure: set up the service"},
        {{"setup", "--upgrade"}, "org.velnor.postgres.configure: set up the service"},
        // The token opens the whole console; call runs anything and reads request files; a
        // plug-in is a file that would be loaded.
        {{"web-url"}, "root's: print the console's address"},
        {{"call", "getStateWithRequest"}, "root's: call an operation by its name"},
        {{"call", "getStateWithRequest", "/etc/shadow"}, "root's: call an operation by its name"},
        {{"call", "stopServiceWithVariant"}, "root's: call an operation by its name"},
        {{"--plugin", "/tmp/own.so", "status"}, "root's: choose the plug-in"},
        // Text that answers itself touches nothing.
        {{"--help"}, "anyone"},
        {{"start", "--help"}, "anyone"},
        {{"--version"}, "anyone"},
    };
    for (const auto& [arguments, expected] : cases) {
        std::string typed;
        for (std::string_view argument : arguments) {
            typed += std::string(argument) + " ";
        }
        EXPECT_EQ(permissionOfCommandLine(arguments), expected) << typed;
    }
}

TEST(Permissions, EveryVerbOfTheCommandLineAndTheConsoleHasARow) {
    // A verb left out would fall to root's; every one that exists is decided here on purpose.
    std::vector<std::string_view> verbs(friendlyVerbs().begin(), friendlyVerbs().end());
    verbs.insert(verbs.end(), {"call", "settings-write", "settings-check", "console", "history"});
    for (std::string_view verb : verbs) {
        EXPECT_TRUE(permissionForVerb(verb).has_value()) << verb;
    }
    EXPECT_FALSE(permissionForVerb("vacuum").has_value());
    EXPECT_EQ(described(*permissionForVerb("console")),
              "org.velnor.postgres.operate: watch the service's clients and log");
    EXPECT_EQ(described(*permissionForVerb("history")),
              "org.velnor.postgres.operate: read the audit trail");
}

}  // namespace
}  // namespace velnor::host
