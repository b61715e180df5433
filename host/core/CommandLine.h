// The host's command line, parsed into a Command value without touching the plug-in or the
// system, so that every way of asking for an operation can be checked on its own.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "PlistValue.h"
#include "PluginInterface.h"
#include "Result.h"

namespace velnor::host {

// The argument of `call` as typed: its meaning depends on the style of the operation, which is
// known only once the plug-in is loaded. Absent when nothing followed the operation's name.
struct RawArgument {
    std::optional<std::string> text;
};

// What the operation is called with. The friendly verbs know their operation's style and
// prepare the argument themselves; `call` leaves it raw.
using OperationArgument = std::variant<RawArgument, PlistDictionary /* request */,
                                       PlistValue /* variant */, std::int32_t /* idle count */>;

// What `settings --plan` and `settings --apply` are asked: the settings as typed, in order,
// and for an apply the version that the job file must still have.
struct SettingsChange {
    bool apply = false;
    std::vector<std::pair<std::string, std::string>> settings;
    std::optional<std::string> expectedVersion;
};

struct Command {
    // Text that answers the command line by itself (--help, a verb's --help, --version): it is
    // printed and nothing else runs.
    std::optional<std::string> answer;
    std::optional<std::string> pluginPath;
    bool json = false;
    // Run in this process even when the daemon answers.
    bool direct = false;
    // How long to wait for a host lock that another host holds; nothing: as long as it takes.
    std::optional<std::chrono::seconds> lockWait;
    // Print nothing on success, and no log messages; failures are still told.
    bool quiet = false;
    // The friendly verb typed (status, start, ...), which prints the response in the short
    // human form; empty for `call`, which prints it as a property list.
    std::string verb;
    bool human = false;
    std::string operation;
    OperationArgument argument;
    // `settings --check`: the KEY=VALUE pairs to ask the server program about; nothing is
    // written and no operation runs.
    std::optional<std::vector<std::string>> settingsToCheck;
    // `settings --plan` or `settings --apply`: set only for those two.
    std::optional<SettingsChange> settingsChange;
    // `history --since TIME`: the records before TIME are left out.
    std::optional<std::string> since;
};

// Parses the arguments that follow the program's name; the options of the host may stand
// before or after the verb. `--help` answers the whole usage, `VERB --help` the verb's, and
// `--version` the version; anything the usage does not allow fails with a message naming the
// offending argument.
support::Result<Command> parseCommandLine(std::span<const std::string_view> arguments);

// The count of `call doIdleAtCount COUNT`: a decimal signed 32-bit integer, sign allowed,
// nothing else around it. Nothing when the text is not one.
std::optional<std::int32_t> parseIdleCount(std::string_view text);

// The argument of `call` for an operation of the given style, when it can be had without
// reading a file: the variant (a string, or absent) for a Service operation and the count
// (0 when absent) for an Idle one. Fails for a Request operation, and for an Idle operation
// whose count is not an int32.
support::Result<OperationArgument> interpretRawArgument(OperationStyle style,
                                                        const RawArgument& raw);

// The plug-in operations that a service verb (start, stop, restart, try-restart) runs, in
// order, each with an absent variant; empty for any other verb. A restart leaves the service
// running whatever its state, as administrators expect of a service manager's restart: a stop,
// then a start. A try-restart restarts only a running service: the plug-in's recycle.
std::span<const std::string_view> serviceVerbOperations(std::string_view verb);

// The line printed after a usage error.
std::string_view usageHint();

// The friendly verbs, in the order the help lists them.
std::span<const std::string_view> friendlyVerbs();

}  // namespace velnor::host
