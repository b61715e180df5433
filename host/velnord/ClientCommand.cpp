#include "ClientCommand.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "CommandLine.h"
#include "Conclusion.h"
#include "ExitStatus.h"
#include "Invocation.h"
#include "PluginLoader.h"
#include "Terminal.h"

namespace velnor::host {
namespace {

// True when the plug-in that the command asks for, by option or environment, is the file that
// the daemon loaded; a command that asks for none takes the daemon's.
bool asksForOwnPlugin(const Command& command, const ClientCommand& client,
                      const std::string& pluginPath) {
    std::optional<std::string> asked = command.pluginPath;
    if (!asked && client.pluginFromEnvironment && !client.pluginFromEnvironment->empty()) {
        asked = client.pluginFromEnvironment;
    }
    if (!asked) {
        return true;
    }
    struct stat wanted;
    struct stat own;
    return fstatat(client.descriptors[3].get(), asked->c_str(), &wanted, 0) == 0 &&
           stat(pluginPath.c_str(), &own) == 0 && wanted.st_dev == own.st_dev &&
           wanted.st_ino == own.st_ino;
}

// The command as velnor typed it: what follows the program's name.
support::Result<Command> parsedCommand(const ClientCommand& client) {
    std::vector<std::string_view> arguments(client.arguments.begin(), client.arguments.end());
    return parseCommandLine(arguments);
}

// Whether the daemon may queue the command's call before its thread takes it up: conclude will
// ask for that call first, and the command is the daemon's to run, in the daemon's plug-in.
bool callsAtOnce(const Command& command, const ClientCommand& client) {
    const bool namesPlugin =
        command.pluginPath.has_value() ||
        (client.pluginFromEnvironment && !client.pluginFromEnvironment->empty());
    return !command.direct && !namesPlugin && callsItsOperationFirst(command);
}

int runOperation(const Command& command, const PluginDescriptor& plugin, Worker& worker,
                 std::optional<EarlyCall> early) {
    int status = kExitNormal;
    std::optional<PreparedCall> prepared = prepareCall(command, plugin, &status);
    if (!prepared) {
        return status;
    }
    const Terminal& client = terminal();
    auto relay = [&client, quiet = command.quiet](int, const std::string& message) {
        if (!quiet) {
            printLogMessage(client, message);
        }
    };
    Call call = [&plugin, &worker, &relay, early = std::move(early)](
                    const std::string& name,
                    const OperationArgument& argument) mutable -> support::Result<Outcome> {
        std::optional<Outcome> outcome;
        if (early && early->operation == name) {
            outcome = early->pending->outcome(relay);
            early.reset();
        } else {
            support::Result<const HostOperation*> operation =
                operationTaking(plugin, name, argument);
            if (!operation) {
                return operation.failure();
            }
            outcome = worker.call(**operation, argument, relay);
        }
        if (!outcome) {
            return support::Failure{ECANCELED, "velnord is stopping; the call was not run"};
        }
        return std::move(*outcome);
    };
    return conclude(command, prepared->argument, call);
}

}  // namespace

std::optional<EarlyCall> startCallAtOnce(const ClientCommand& client,
                                         const PluginDescriptor& plugin, Worker& worker) {
    support::Result<Command> command = parsedCommand(client);
    if (!command || !callsAtOnce(*command, client)) {
        return std::nullopt;
    }
    const HostOperation* operation = findOperation(plugin, command->operation);
    if (operation == nullptr || !argumentFitsStyle(operation->style, command->argument)) {
        return std::nullopt;
    }
    std::shared_ptr<PendingCall> pending = worker.start(*operation, command->argument);
    if (!pending) {
        return std::nullopt;
    }
    return EarlyCall{command->operation, std::move(pending)};
}

std::optional<int> runClientCommand(const ClientCommand& client, const PluginDescriptor& plugin,
                                    const std::string& pluginPath, Worker& worker) {
    support::Result<Command> parsed = parsedCommand(client);
    if (parsed && (parsed->direct || !asksForOwnPlugin(*parsed, client, pluginPath))) {
        return std::nullopt;
    }
    const Terminal own{client.descriptors[1].get(),
                       client.descriptors[2].get(),
                       client.descriptors[0].get(),
                       client.descriptors[3].get(),
                       client.pid,
                       client.connection};
    TerminalScope scope(own);
    if (!parsed) {
        return usageError(parsed.message());
    }
    if (std::optional<int> answered = answerWithoutPlugin(*parsed)) {
        return *answered;
    }
    return runOperation(*parsed, plugin, worker, client.earlyCall);
}

}  // namespace velnor::host
