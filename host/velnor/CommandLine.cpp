#include "CommandLine.h"

#include <cerrno>
#include <charconv>
#include <limits>

namespace velnor::host {
namespace {

constexpr std::string_view kUsage =
    "usage: velnor [--direct] [--plugin PATH] [--json] [--wait SECONDS] call OPERATION [ARGUMENT]\n"
    "       velnor [--direct] [--plugin PATH] [--json] [--wait SECONDS]\n"
    "              status [--details] | start | stop | restart | settings [KEY=VALUE ...]\n"
    "              | setup [--data-location DIR | --upgrade] | log-path | idle\n"
    "       velnor --help\n";

constexpr std::string_view kHelp =
    "velnor loads a service plug-in and runs one of its operations.\n"
    "\n"
    "usage: velnor [--direct] [--plugin PATH] [--json] [--wait SECONDS] call OPERATION [ARGUMENT]\n"
    "       velnor [--direct] [--plugin PATH] [--json] [--wait SECONDS] COMMAND [OPTIONS]\n"
    "       velnor --help\n"
    "\n"
    "Options (before the command):\n"
    "  --direct        load the plug-in and run the operation in this process even when\n"
    "                  velnord answers on /run/velnor/velnord.sock\n"
    "  --plugin PATH   the plug-in module to load; else $VELNOR_PLUGIN, else the installed\n"
    "                  module, else the one in the build tree (velnord uses its own)\n"
    "  --json          print responses as JSON (an absent response prints null)\n"
    "  --wait SECONDS  give up when another velnor holds the host lock that long (exit 75);\n"
    "                  without it, wait as long as it takes\n"
    "  --help          print this text\n"
    "\n"
    "Commands:\n"
    "  call OPERATION [ARGUMENT]\n"
    "      Runs an operation of the plug-in by its name and prints the response as an XML\n"
    "      property list (nothing when the response is absent). For a request operation\n"
    "      ARGUMENT is a property-list file (XML or binary) holding the request dictionary,\n"
    "      - for standard input, or nothing for an empty request. For a service operation it\n"
    "      is the variant string, or nothing for no variant. For doIdleAtCount it is the count\n"
    "      (default 0), and the result is printed.\n"
    "  status [--details]       the service's state; --details adds the data folder and server\n"
    "  start | stop | restart   starts, stops or restarts the service\n"
    "  settings                 prints the service's settings\n"
    "  settings KEY=VALUE ...   changes settings (split at the first =) and restarts a running\n"
    "                           service so that it picks them up\n"
    "  setup [--data-location DIR | --upgrade]\n"
    "                           first set-up with a new data folder, or again keeping the\n"
    "                           existing one\n"
    "  log-path                 the path of the service's log file\n"
    "  idle                     the periodic idle call, once\n"
    "  These print the response in a short human form (key: value), or JSON with --json.\n"
    "\n"
    "Exit status:\n"
    "  0   the operation answered normally, or answered nothing\n"
    "  1   the operation answered an error response (a dictionary holding \"error\")\n"
    "  2   the operation ended without a response; the error is named on standard error\n"
    "  64  bad usage, an operation the plug-in does not have, or a count that is not an int32\n"
    "  65  the request file cannot be read, is not a property list, or is not a dictionary\n"
    "  69  the plug-in cannot be loaded, has no descriptor, or speaks another interface\n"
    "      version\n"
    "  73  the host lock cannot be created or taken\n"
    "  74  the response cannot be written to standard output\n"
    "  75  another velnor held the host lock for all of --wait\n"
    "  77  velnor was not run as root\n"
    "\n"
    "When velnord answers on its control socket, velnor sends the call there and loads\n"
    "nothing; else, or with --direct, it runs the call itself.\n"
    "Only root may run velnor. Every operation runs under an exclusive lock on\n"
    "/var/run/velnor/host.lock, so two velnor processes never run plug-in operations at the same\n"
    "time. The plug-in's log messages also appear on standard error.\n"
    "\n"
    "Environment:\n"
    "  VELNOR_PLUGIN     the plug-in module when --plugin is not given\n"
    "  VELNOR_LOCK_FILE  another lock file instead of /var/run/velnor/host.lock\n"
    "  PGHOST            the database server's socket folder; /var/pgsql_socket when unset\n"
    "  PGCONNECT_TIMEOUT seconds the liveness probe waits for the server; 5 when unset\n";

constexpr std::string_view kPluginOption = "--plugin";
constexpr std::string_view kWaitOption = "--wait";
constexpr std::string_view kDataLocationOption = "--data-location";

// Walks the arguments once, front to back.
class ArgumentCursor {
  public:
    explicit ArgumentCursor(std::span<const std::string_view> arguments) : rest_(arguments) {}

    bool atEnd() const { return rest_.empty(); }
    std::string_view peek() const { return rest_.front(); }
    std::string_view next() {
        std::string_view argument = rest_.front();
        rest_ = rest_.subspan(1);
        return argument;
    }

  private:
    std::span<const std::string_view> rest_;
};

// The value of an option written either as `--name VALUE` or as `--name=VALUE`; the option's
// own argument has been taken already. Nothing when the value is missing or empty.
std::optional<std::string> optionValue(std::string_view option, std::string_view name,
                                       ArgumentCursor& cursor) {
    std::string_view value;
    if (option.size() > name.size()) {
        value = option.substr(name.size() + 1);
    } else if (!cursor.atEnd()) {
        value = cursor.next();
    }
    if (value.empty()) {
        return std::nullopt;
    }
    return std::string(value);
}

bool isOption(std::string_view argument, std::string_view name) {
    return argument == name || (argument.starts_with(name) && argument.size() > name.size() &&
                                argument[name.size()] == '=');
}

// A whole, non-negative number of seconds, digits only.
std::optional<std::chrono::seconds> parseSeconds(const std::optional<std::string>& text) {
    std::uint32_t seconds = 0;
    if (!text) {
        return std::nullopt;
    }
    const char* end = text->data() + text->size();
    auto [stop, error] = std::from_chars(text->data(), end, seconds);
    if (error != std::errc() || stop != end) {
        return std::nullopt;
    }
    return std::chrono::seconds(seconds);
}

// A usage error: the message names the offending argument and no system error applies.
support::Failure failure(std::string error) {
    return {EINVAL, std::move(error)};
}

support::Result<Command> noMoreArguments(Command command, ArgumentCursor& cursor) {
    if (!cursor.atEnd()) {
        return failure("unexpected argument \"" + std::string(cursor.peek()) + "\"");
    }
    return command;
}

support::Result<Command> parseCall(Command command, ArgumentCursor& cursor) {
    if (cursor.atEnd() || cursor.peek().empty()) {
        return failure("call needs the name of an operation");
    }
    command.operation = cursor.next();
    RawArgument raw;
    if (!cursor.atEnd()) {
        raw.text = std::string(cursor.next());
    }
    command.argument = std::move(raw);
    return noMoreArguments(std::move(command), cursor);
}

support::Result<Command> parseStatus(Command command, ArgumentCursor& cursor) {
    PlistDictionary request;
    if (!cursor.atEnd() && cursor.peek() == "--details") {
        cursor.next();
        request.set("variant", PlistValue("withDetails"));
    }
    command.operation = "getStateWithRequest";
    command.argument = std::move(request);
    return noMoreArguments(std::move(command), cursor);
}

support::Result<Command> parseSettings(Command command, ArgumentCursor& cursor) {
    PlistDictionary configuration;
    while (!cursor.atEnd()) {
        std::string_view setting = cursor.next();
        // Values may hold "=" themselves (search_path="$user",public), keys never do.
        std::size_t equals = setting.find('=');
        if (equals == std::string_view::npos || equals == 0) {
            return failure("a setting is written KEY=VALUE, not \"" + std::string(setting) + "\"");
        }
        configuration.set(std::string(setting.substr(0, equals)),
                          PlistValue(std::string(setting.substr(equals + 1))));
    }
    if (configuration.empty()) {
        command.operation = "readSettingsWithRequest";
        command.argument = PlistDictionary();
        return command;
    }
    command.operation = "writeSettingsWithRequest";
    command.argument = PlistDictionary{{"configuration", PlistValue(std::move(configuration))}};
    return command;
}

support::Result<Command> parseSetup(Command command, ArgumentCursor& cursor) {
    std::optional<std::string> dataLocation;
    bool upgrade = false;
    while (!cursor.atEnd()) {
        std::string_view option = cursor.next();
        if (option == "--upgrade") {
            upgrade = true;
        } else if (isOption(option, kDataLocationOption)) {
            dataLocation = optionValue(option, kDataLocationOption, cursor);
            if (!dataLocation) {
                return failure("--data-location needs a folder");
            }
        } else {
            return failure("unexpected argument \"" + std::string(option) + "\"");
        }
    }
    if (upgrade && dataLocation) {
        return failure("setup takes either --data-location or --upgrade, not both");
    }
    PlistDictionary request;
    if (upgrade) {
        request.set("upgrade", PlistValue::boolean(true));
    } else if (dataLocation) {
        request.set("dataLocation", PlistValue(std::move(*dataLocation)));
    }
    command.operation = "initialSetupWithRequest";
    command.argument = std::move(request);
    return command;
}

support::Result<Command> parseVerb(std::string_view verb, Command command, ArgumentCursor& cursor) {
    if (verb == "call") {
        return parseCall(std::move(command), cursor);
    }
    command.human = true;
    if (verb == "status") {
        return parseStatus(std::move(command), cursor);
    }
    if (verb == "settings") {
        return parseSettings(std::move(command), cursor);
    }
    if (verb == "setup") {
        return parseSetup(std::move(command), cursor);
    }
    struct PlainVerb {
        std::string_view verb;
        const char* operation;
        OperationArgument argument;
    };
    const PlainVerb plainVerbs[] = {
        {"start", "startServiceWithVariant", PlistValue()},
        {"stop", "stopServiceWithVariant", PlistValue()},
        {"restart", "recycleServiceWithVariant", PlistValue()},
        {"log-path", "getLogPathsWithRequest", PlistDictionary()},
        {"idle", "doIdleAtCount", std::int32_t{0}},
    };
    for (const PlainVerb& plain : plainVerbs) {
        if (plain.verb == verb) {
            command.operation = plain.operation;
            command.argument = plain.argument;
            return noMoreArguments(std::move(command), cursor);
        }
    }
    return failure("unknown command \"" + std::string(verb) + "\"");
}

}  // namespace

support::Result<Command> parseCommandLine(std::span<const std::string_view> arguments) {
    ArgumentCursor cursor(arguments);
    Command command;
    while (!cursor.atEnd() && cursor.peek().starts_with("-")) {
        std::string_view option = cursor.next();
        if (option == "--help" || option == "-h") {
            Command help;
            help.help = true;
            return help;
        }
        if (option == "--json") {
            command.json = true;
        } else if (option == "--direct") {
            command.direct = true;
        } else if (isOption(option, kWaitOption)) {
            command.lockWait = parseSeconds(optionValue(option, kWaitOption, cursor));
            if (!command.lockWait) {
                return failure("--wait needs a whole number of seconds");
            }
        } else if (isOption(option, kPluginOption)) {
            command.pluginPath = optionValue(option, kPluginOption, cursor);
            if (!command.pluginPath) {
                return failure("--plugin needs the path of a plug-in module");
            }
        } else {
            return failure("unknown option \"" + std::string(option) + "\"");
        }
    }
    if (cursor.atEnd()) {
        return failure("no command given");
    }
    std::string_view verb = cursor.next();
    return parseVerb(verb, std::move(command), cursor);
}

std::optional<std::int32_t> parseIdleCount(std::string_view text) {
    // from_chars takes no "+", but a count typed as +3 is still a count.
    if (text.starts_with('+') && !text.substr(1).starts_with('-')) {
        text.remove_prefix(1);
    }
    std::int32_t count = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return count;
}

support::Result<OperationArgument> interpretRawArgument(OperationStyle style,
                                                        const RawArgument& raw) {
    switch (style) {
        case OperationStyle::Request:
            break;
        case OperationStyle::Service:
            return raw.text ? OperationArgument(PlistValue(*raw.text))
                            : OperationArgument(PlistValue());
        case OperationStyle::Idle: {
            if (!raw.text) {
                return OperationArgument(std::int32_t{0});
            }
            std::optional<std::int32_t> count = parseIdleCount(*raw.text);
            if (!count) {
                return failure("the count \"" + *raw.text + "\" is not a signed 32-bit integer");
            }
            return OperationArgument(*count);
        }
    }
    return failure("a request operation's argument is read from a file, not interpreted");
}

std::string_view usageText() {
    return kUsage;
}

std::string_view helpText() {
    return kHelp;
}

}  // namespace velnor::host
