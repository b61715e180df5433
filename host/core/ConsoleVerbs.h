// The command-line side of the web console and of the settings check: `velnor web-url`, which
// prints the console's address with its access token, and `velnor settings --check K=V ...`,
// which says what the server program thinks of each setting without writing anything.
#pragma once

#include <optional>

#include "CommandLine.h"

namespace velnor::host {

// Runs `web-url` or `settings --check ...` when the command is one of them, and answers its
// exit status; nothing for every other command. Neither loads the plug-in or asks velnord.
std::optional<int> runConsoleVerb(const Command& command);

}  // namespace velnor::host
