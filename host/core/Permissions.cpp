#include "Permissions.h"

#include <array>

namespace velnor::host {
namespace {

using Kind = Permission::Kind;

struct VerbRow {
    std::string_view verb;
    Permission permission;
};

// Reading is every account's: the server's whole configuration is its command line, which every
// account can read in the process table already. What changes the service, or shows who uses it
// and what its log says, is the operators'; what changes how it runs, the configurers'. The
// console's address carries the token that opens all of the console, so it is root's.
constexpr std::array kVerbs{
    VerbRow{"status", {Kind::Action, Action::Read, "read the service's state"}},
    VerbRow{"settings", {Kind::Action, Action::Read, "read the settings"}},
    VerbRow{"log-path", {Kind::Action, Action::Read, "read the log path"}},
    VerbRow{"start", {Kind::Action, Action::Operate, "start the service"}},
    VerbRow{"stop", {Kind::Action, Action::Operate, "stop the service"}},
    VerbRow{"restart", {Kind::Action, Action::Operate, "restart the service"}},
    VerbRow{"try-restart", {Kind::Action, Action::Operate, "restart the service"}},
    VerbRow{"idle", {Kind::Action, Action::Operate, "run the housekeeping"}},
    VerbRow{"history", {Kind::Action, Action::Operate, "read the audit trail"}},
    VerbRow{"console", {Kind::Action, Action::Operate, "watch the service's clients and log"}},
    VerbRow{"settings-write", {Kind::Action, Action::Configure, "change the settings"}},
    // The check runs the server program as the service account with the caller's settings: the
    // first half of a change.
    VerbRow{"settings-check", {Kind::Action, Action::Configure, "check settings"}},
    VerbRow{"setup", {Kind::Action, Action::Configure, "set up the service"}},
    VerbRow{"web-url", {Kind::RootOnly, Action::Read, "print the console's address"}},
    VerbRow{"call", {Kind::RootOnly, Action::Read, "call an operation by its name"}},
};

constexpr Permission kChoosePlugin{Kind::RootOnly, Action::Read, "choose the plug-in"};

}  // namespace

std::string_view actionId(Action action) {
    switch (action) {
        case Action::Read:
            return "org.velnor.postgres.read";
        case Action::Operate:
            return "org.velnor.postgres.operate";
        case Action::Configure:
            break;
    }
    return "org.velnor.postgres.configure";
}

std::optional<Permission> permissionForVerb(std::string_view verb) {
    for (const VerbRow& row : kVerbs) {
        if (row.verb == verb) {
            return row.permission;
        }
    }
    return std::nullopt;
}

std::string_view permissionVerbOf(const Command& command) {
    if (command.verb.empty()) {
        return "call";
    }
    if (command.verb == "settings" && command.settingsToCheck) {
        return "settings-check";
    }
    if (command.verb == "settings" && command.operation == "writeSettingsWithRequest") {
        return "settings-write";
    }
    return command.verb;
}

Permission permissionForCommand(const Command& command) {
    if (command.answer) {
        return {};
    }
    if (command.pluginPath) {
        return kChoosePlugin;
    }
    // A verb the table does not know is refused like one that is root's: a verb added to the
    // command line is root's until it is given an action.
    return permissionForVerb(permissionVerbOf(command))
        .value_or(Permission{Kind::RootOnly, Action::Read, "run that command"});
}

}  // namespace velnor::host
