// Who may do what: every verb of the command line and of the console needs one of three polkit
// actions, or is root's alone. Root needs no action; any other account is asked about before its
// request is run. The one table from verb to action lives here, so that velnord, the console and
// the audit trail name an action the same way.
#pragma once

#include <optional>
#include <string_view>

#include "CommandLine.h"

namespace velnor::host {

enum class Action {
    Read,       // the state, the settings, the log path
    Operate,    // start, stop, restart, the housekeeping, the console's clients and log, history
    Configure,  // a settings write or check, the initial set-up
};

// The action's polkit id: "org.velnor.postgres.read", ".operate" or ".configure".
std::string_view actionId(Action action);

// What a verb asks of its caller.
struct Permission {
    enum class Kind {
        Anyone,    // answers without the plug-in or the system: --help, --version, a usage error
        Action,    // needs action
        RootOnly,  // no action grants it: it reads files or hands out more than any action does
    };
    Kind kind = Kind::Anyone;
    Action action = Action::Read;
    // What the verb does, as a refusal names it: "start the service".
    std::string_view doing;
};

// What the verb needs. The command line's verbs go by their names ("start", "settings"), with
// "settings-write" and "settings-check" for a settings change and its check; the console's
// routes by "console" (the page, its snapshot and its events, which show the clients and the
// server's log) and the command-line names of what they run. Nothing for a verb the table does
// not know: the caller refuses it.
std::optional<Permission> permissionForVerb(std::string_view verb);

// The table's name for the command's verb: its verb, "settings-write" and "settings-check" for
// the settings' two changes, "call" for an operation called by its name.
std::string_view permissionVerbOf(const Command& command);

// What a parsed command line needs: its verb's permission; Anyone for a command that only
// answers text (--help, a verb's --help, --version); RootOnly for `call`, which runs any
// operation and reads request files, and for --plugin, which names a file to load.
Permission permissionForCommand(const Command& command);

}  // namespace velnor::host
