#include "ClientCommand.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "Accounts.h"
#include "Caller.h"
#include "CommandLine.h"
#include "Conclusion.h"
#include "ExitStatus.h"
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

int runOperation(const Command& command, const Caller& caller, const PluginDescriptor& plugin,
                 Worker& worker, WorkerLane lane) {
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
    Call call = [&plugin, &worker, &relay, lane](
                    const std::string& name, const OperationArgument& argument,
                    const CallGuard& guard) -> support::Result<Outcome> {
        support::Result<const HostOperation*> operation = operationTaking(plugin, name, argument);
        if (!operation) {
            return operation.failure();
        }
        std::optional<support::Failure> refused;
        std::optional<Outcome> outcome =
            worker.call(**operation, argument, relay, guard, &refused, lane);
        if (refused) {
            return std::move(*refused);
        }
        if (!outcome) {
            return support::Failure{ECANCELED, "velnord is stopping; the call was not run"};
        }
        return std::move(*outcome);
    };
    const Metrics* metrics = worker.metrics();
    LedgerFigures ledger;
    if (metrics != nullptr) {
        ledger = [metrics] { return metrics->ledgerFigures(); };
    }
    return conclude(command, prepared->argument, call, caller, ledger);
}

// The client's descriptors as the terminal of its command.
Terminal terminalOf(const ClientCommand& client) {
    return Terminal{client.descriptors[1].get(),
                    client.descriptors[2].get(),
                    client.descriptors[0].get(),
                    client.descriptors[3].get(),
                    client.pid,
                    client.connection};
}

}  // namespace

std::optional<int> runClientCommand(const ClientCommand& client, const PluginDescriptor& plugin,
                                    const std::string& pluginPath, Worker& worker) {
    std::vector<std::string_view> arguments(client.arguments.begin(), client.arguments.end());
    support::Result<Command> parsed = parseCommandLine(arguments);
    if (parsed && (parsed->direct || !asksForOwnPlugin(*parsed, client, pluginPath))) {
        return std::nullopt;
    }
    const Terminal own = terminalOf(client);
    TerminalScope scope(own);
    if (!parsed) {
        return usageError(parsed.message());
    }
    if (std::optional<int> answered = answerWithoutPlugin(*parsed)) {
        return *answered;
    }
    // The kernel vouches for the peer: its credentials when it connected.
    return runOperation(*parsed, client.caller, plugin, worker, client.lane);
}

int refuseClientCommand(const ClientCommand& client, const std::string& refusal) {
    const Terminal own = terminalOf(client);
    TerminalScope scope(own);
    complain(refusal);
    return kExitNotRoot;
}

}  // namespace velnor::host
