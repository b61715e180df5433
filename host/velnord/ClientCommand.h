// A client's whole command line run inside the daemon: velnor passes its arguments and its
// standard streams and working folder, and the daemon runs the command exactly as the in-process
// host would, with the plug-in's calls taking their turn on the worker. velnor itself then needs
// to do no more than connect, so it starts as fast as the smallest program.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "Caller.h"
#include "PluginInterface.h"
#include "UniqueFd.h"
#include "Worker.h"

namespace velnor::host {

struct ClientCommand {
    // What follows the program's name.
    std::vector<std::string> arguments;
    // The client's VELNOR_PLUGIN, when it set one.
    std::optional<std::string> pluginFromEnvironment;
    // Standard input, output and error, then the working folder.
    std::vector<support::UniqueFd> descriptors;
    pid_t pid = 0;
    // The connection it came on.
    int connection = -1;
    // Who the client is, from the connection's peer credentials.
    Caller caller;
    // Root's command lines are served before those of other accounts.
    WorkerLane lane = WorkerLane::Root;
};

inline constexpr std::size_t kClientDescriptors = 4;

// Runs the command with its output written to the client's descriptors; its exit status.
// Nothing, with nothing written, when the client is to run it in its own process: for
// --direct, or when it names a plug-in other than the daemon's (pluginPath).
std::optional<int> runClientCommand(const ClientCommand& client, const PluginDescriptor& plugin,
                                    const std::string& pluginPath, Worker& worker);

// Tells the client on its standard error why its command was refused ("velnor: REFUSAL"), and
// runs nothing; the exit status, kExitNotRoot.
int refuseClientCommand(const ClientCommand& client, const std::string& refusal);

}  // namespace velnor::host
