#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <limits>

#include "AuditHistory.h"
#include "SettingsCheck.h"
#include "SettingsPlan.h"

namespace velnor::host {
namespace {

constexpr std::string_view kDescription =
    "velnor loads the service plug-in and runs one of its operations: the friendly verbs print\n"
    "the answer in a short human form (JSON with --json), `call` runs any operation by its name\n"
    "and prints the response as an XML property list. Options may stand before or after the\n"
    "verb. When velnord answers on /run/velnor/velnord.sock, it runs the command.";

constexpr std::string_view kFooter =
    "Exit status:\n"
    "  0   the operation answered normally, or answered nothing; status: the service runs\n"
    "  1   the operation answered an error response (explained on standard error)\n"
    "  2   the operation ended without a response; the error is named on standard error\n"
    "  3   status: the service is stopped\n"
    "  4   settings --apply: the job file is no longer the version that --expect-version names\n"
    "  64  bad usage, an operation the plug-in does not have, or a count that is not an int32\n"
    "  65  the request file cannot be read, is not a property list, or is not a dictionary\n"
    "  69  the plug-in cannot be loaded, has no descriptor, or speaks another interface version;\n"
    "      or the audit trail cannot take the record of another account's change, or be read\n"
    "  73  the host lock cannot be created or taken\n"
    "  74  the response cannot be written to standard output\n"
    "  75  another velnor held the host lock for all of --wait\n"
    "  77  not allowed: the account lacks the verb's polkit action, or only root may\n"
    "\n"
    "Environment:\n"
    "  VELNOR_PLUGIN     the plug-in module when --plugin is not given\n"
    "  VELNOR_LOCK_FILE  another lock file instead of /var/run/velnor/host.lock\n"
    "  PGHOST            the database server's socket folder; /var/pgsql_socket when unset\n"
    "  PGCONNECT_TIMEOUT seconds the liveness probe waits for the server; 5 when unset\n";

constexpr std::string_view kVerbs[] = {"status",      "start",    "stop",   "restart",
                                       "try-restart", "settings", "setup",  "log-path",
                                       "idle",        "web-url",  "history"};

constexpr std::string_view kStart[] = {"startServiceWithVariant"};
constexpr std::string_view kStop[] = {"stopServiceWithVariant"};
constexpr std::string_view kRestart[] = {"stopServiceWithVariant", "startServiceWithVariant"};
constexpr std::string_view kTryRestart[] = {"recycleServiceWithVariant"};

// A whole, non-negative number of seconds, digits only.
std::optional<std::chrono::seconds> parseSeconds(const std::string& text) {
    std::uint32_t seconds = 0;
    const char* end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, seconds);
    if (text.empty() || error != std::errc() || stop != end) {
        return std::nullopt;
    }
    return std::chrono::seconds(seconds);
}

// A usage error: the message names the offending argument and no system error applies.
support::Failure failure(std::string error) {
    return {EINVAL, std::move(error)};
}

// What the parser fills in; turned into a Command once the verb is known.
struct Typed {
    std::string plugin;
    std::string wait;
    std::string operation;
    std::vector<std::string> callArgument;
    bool details = false;
    std::vector<std::string> settings;
    bool check = false;
    bool plan = false;
    bool apply = false;
    std::optional<std::string> expectedVersion;
    std::string dataLocation;
    bool upgrade = false;
    std::string since;
};

// The host's options, which every verb takes too: a verb falls through to them.
void addHostOptions(CLI::App& app, Command& command, Typed& typed) {
    app.add_flag("--json", command.json, "print responses as JSON (an absent response: null)");
    app.add_flag("-q,--quiet", command.quiet,
                 "print nothing on success and no log messages; failures are still told");
    app.add_flag("--direct", command.direct,
                 "run the operation in this process even when velnord answers");
    app.add_option("--plugin", typed.plugin,
                   "the plug-in module; else $VELNOR_PLUGIN, else the installed one")
        ->type_name("PATH");
    app.add_option("--wait", typed.wait,
                   "give up when another velnor holds the host lock that long (exit 75)")
        ->type_name("SECONDS");
    app.set_version_flag("--version", VELNOR_VERSION, "print velnor's version");
}

void addVerbs(CLI::App& app, Typed& typed) {
    CLI::App* call =
        app.add_subcommand("call",
                           "run an operation by its name; ARGUMENT: a request file (- for standard "
                           "input), a variant or a count");
    call->add_option("OPERATION", typed.operation, "the operation's name")->required();
    call->add_option("ARGUMENT", typed.callArgument, "its argument")->expected(0, 1);
    app.add_subcommand("status", "the service's state: exits 0 when it runs, 3 when stopped")
        ->add_flag("--details", typed.details,
                   "add the data folder's checks, whether the server answers, its version")
        ->multi_option_policy(CLI::MultiOptionPolicy::Throw);
    app.add_subcommand("start", "start the service");
    app.add_subcommand("stop", "stop the service");
    app.add_subcommand("restart", "stop the service if it runs, then start it");
    app.add_subcommand("try-restart", "restart the service if it runs; else do nothing");
    CLI::App* settings = app.add_subcommand(
        "settings", "print the settings, or change them (KEY=VALUE) and restart a running service");
    settings->add_option("KEY=VALUE", typed.settings, "a setting to change");
    CLI::Option* check =
        settings->add_flag("--check", typed.check,
                           "ask the server program whether it accepts each setting; write nothing");
    CLI::Option* plan =
        settings
            ->add_flag("--plan", typed.plan,
                       "say what --apply would change, what it costs, and the job file's version")
            ->excludes(check);
    CLI::Option* apply =
        settings
            ->add_flag("--apply", typed.apply,
                       "write and restart only when a value differs as the server reads it")
            ->excludes(check)
            ->excludes(plan);
    settings
        ->add_option("--expect-version", typed.expectedVersion,
                     "with --apply: refuse (exit 4) unless the job file is still this version")
        ->type_name("VERSION")
        ->needs(apply);
    CLI::App* setup = app.add_subcommand("setup", "set up the service the first time");
    CLI::Option* location =
        setup->add_option("--data-location", typed.dataLocation, "a new data folder")
            ->type_name("DIR")
            ->check([](const std::string& value) {
                return value.empty() ? std::string("needs a folder") : std::string();
            });
    setup->add_flag("--upgrade", typed.upgrade, "set up again, keeping the data folder")
        ->excludes(location);
    app.add_subcommand("log-path", "the path of the service's log file");
    app.add_subcommand("idle", "the periodic housekeeping, once");
    app.add_subcommand("web-url", "the web console's address, with its access token");
    app.add_subcommand("history", "who changed the service, how and when: the audit trail")
        ->add_option("--since", typed.since,
                     "leave out what came before TIME: 2026-11-25, 2026-11-25T10:30[:15] (UTC), "
                     "or 90s, 15m, 2h, 7d ago")
        ->type_name("TIME")
        ->check([](const std::string& value) {
            return parseSince(value, std::chrono::system_clock::now())
                       ? std::string()
                       : "is a date and time (2026-11-25T10:30) or a span (2h), not \"" + value +
                             "\"";
        });
}

// `settings --plan` and `--apply`. An apply names the write among its operations, a plan the
// read: what the command may do is told by its operation.
support::Result<Command> settingsChangeCommand(Command command, const Typed& typed) {
    SettingsChange change;
    change.apply = typed.apply;
    for (const std::string& setting : typed.settings) {
        support::Result<std::pair<std::string, std::string>> pair = splitSetting(setting);
        if (!pair) {
            return failure("a setting is written KEY=VALUE, not \"" + setting + "\"");
        }
        // A setting typed twice takes its last value, as the plain write does.
        auto same = [&pair](const auto& typedBefore) { return typedBefore.first == pair->first; };
        auto before = std::find_if(change.settings.begin(), change.settings.end(), same);
        if (before != change.settings.end()) {
            before->second = std::move(pair->second);
        } else {
            change.settings.push_back(std::move(*pair));
        }
    }
    if (change.settings.empty()) {
        return failure(std::string(typed.apply ? "--apply" : "--plan") +
                       " needs at least one KEY=VALUE");
    }
    if (typed.expectedVersion && !isJobFileVersion(*typed.expectedVersion)) {
        return failure("--expect-version needs a version as --plan prints it, not \"" +
                       *typed.expectedVersion + "\"");
    }
    change.expectedVersion = typed.expectedVersion;
    command.operation = typed.apply ? "writeSettingsWithRequest" : "readSettingsWithRequest";
    command.argument = PlistDictionary();
    command.settingsChange = std::move(change);
    return command;
}

support::Result<Command> settingsCommand(Command command, const Typed& typed) {
    PlistDictionary configuration;
    for (const std::string& setting : typed.settings) {
        support::Result<std::pair<std::string, std::string>> pair = splitSetting(setting);
        if (!pair) {
            return failure("a setting is written KEY=VALUE, not \"" + setting + "\"");
        }
        configuration.set(pair->first, PlistValue(std::move(pair->second)));
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

// The operation and argument of the verb that was typed.
support::Result<Command> verbCommand(Command command, const Typed& typed) {
    const std::string& verb = command.verb;
    if (verb == "call") {
        command.verb.clear();
        command.operation = typed.operation;
        command.argument = RawArgument{
            typed.callArgument.empty() ? std::nullopt : std::optional(typed.callArgument.front())};
        return command;
    }
    command.human = true;
    if (verb == "web-url") {
        return command;
    }
    if (verb == "history") {
        if (!typed.since.empty()) {
            command.since = typed.since;
        }
        return command;
    }
    if (verb == "settings" && typed.check) {
        command.settingsToCheck = typed.settings;
        return command;
    }
    if (verb == "settings" && (typed.plan || typed.apply)) {
        return settingsChangeCommand(std::move(command), typed);
    }
    if (verb == "settings") {
        return settingsCommand(std::move(command), typed);
    }
    PlistDictionary request;
    if (verb == "status") {
        if (typed.details) {
            request.set("variant", PlistValue("withDetails"));
        }
        command.operation = "getStateWithRequest";
    } else if (verb == "setup") {
        if (typed.upgrade) {
            request.set("upgrade", PlistValue::boolean(true));
        } else if (!typed.dataLocation.empty()) {
            request.set("dataLocation", PlistValue(typed.dataLocation));
        }
        command.operation = "initialSetupWithRequest";
    } else if (verb == "log-path") {
        command.operation = "getLogPathsWithRequest";
    } else if (verb == "idle") {
        command.operation = "doIdleAtCount";
        command.argument = std::int32_t{0};
        return command;
    } else {
        // The last of the verb's operations is the one whose response the verb reports; conclude
        // runs those before it.
        command.operation = serviceVerbOperations(verb).back();
        command.argument = PlistValue();
        return command;
    }
    command.argument = std::move(request);
    return command;
}

// What a refused command line is told: an argument where a verb should be is named, with the
// verbs that there are.
std::string parseFailure(const CLI::App& app, const CLI::ParseError& error) {
    if (!app.get_subcommands().empty() || app.remaining().empty()) {
        return error.what();
    }
    std::string verbs = "call";
    for (std::string_view verb : kVerbs) {
        verbs += ", " + std::string(verb);
    }
    return "unknown command \"" + app.remaining().front() + "\"; the commands are " + verbs;
}

// The host options' values, checked.
support::Status checkHostOptions(Command& command, const Typed& typed, const CLI::App& app) {
    if (app.count("--plugin") > 0) {
        if (typed.plugin.empty()) {
            return failure("--plugin needs the path of a plug-in module");
        }
        command.pluginPath = typed.plugin;
    }
    if (app.count("--wait") > 0) {
        command.lockWait = parseSeconds(typed.wait);
        if (!command.lockWait) {
            return failure("--wait needs a whole number of seconds");
        }
    }
    return {};
}

// The usage built once and kept for every command line that a thread parses: building it costs
// far more than a parse, and velnord parses a command line for nearly every run of velnor. Its
// options write into command and typed, which each parse starts afresh.
class Parser {
  public:
    Parser() : app_(std::string(kDescription), "velnor") {
        app_.fallthrough();
        app_.require_subcommand(1);
        addHostOptions(app_, command_, typed_);
        addVerbs(app_, typed_);
        app_.footer(std::string(kFooter));
    }
    Parser(const Parser&) = delete;
    Parser& operator=(const Parser&) = delete;

    support::Result<Command> parse(std::span<const std::string_view> arguments) {
        command_ = Command();
        typed_ = Typed();
        // A parse that threw leaves its counts behind; the next one starts from none.
        app_.clear();
        // CLI11 takes the arguments last first.
        std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
        try {
            app_.parse(reversed);
        } catch (const CLI::CallForHelp&) {
            // A verb's usage reads "velnor VERB".
            command_.answer = app_.get_subcommands().empty()
                                  ? app_.help()
                                  : app_.get_subcommands()[0]->help(app_.get_name());
            return std::move(command_);
        } catch (const CLI::CallForVersion&) {
            command_.answer = std::string(VELNOR_VERSION) + "\n";
            return std::move(command_);
        } catch (const CLI::ParseError& error) {
            return failure(parseFailure(app_, error));
        }
        if (auto checked = checkHostOptions(command_, typed_, app_); !checked) {
            return checked.failure();
        }
        command_.verb = app_.get_subcommands()[0]->get_name();
        return verbCommand(std::move(command_), typed_);
    }

  private:
    Command command_;
    Typed typed_;
    CLI::App app_;
};

}  // namespace

support::Result<Command> parseCommandLine(std::span<const std::string_view> arguments) {
    // One per thread: a parse writes into the parser's own fields.
    thread_local Parser parser;
    return parser.parse(arguments);
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

std::span<const std::string_view> serviceVerbOperations(std::string_view verb) {
    return verb == "start"         ? std::span<const std::string_view>(kStart)
           : verb == "stop"        ? std::span<const std::string_view>(kStop)
           : verb == "restart"     ? std::span<const std::string_view>(kRestart)
           : verb == "try-restart" ? std::span<const std::string_view>(kTryRestart)
                                   : std::span<const std::string_view>();
}

std::string_view usageHint() {
    return "Try velnor --help, or velnor VERB --help.\n";
}

std::span<const std::string_view> friendlyVerbs() {
    return kVerbs;
}

}  // namespace velnor::host
