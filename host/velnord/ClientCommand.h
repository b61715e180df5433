// A client's whole command line run inside the daemon: velnor passes its arguments and its
// standard streams and working folder, and the daemon runs the command exactly as the in-process
// host would, with the plug-in's calls taking their turn on the worker. velnor itself then needs
// to do no more than connect, so it starts as fast as the smallest program.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "PluginInterface.h"
#include "UniqueFd.h"
#include "Worker.h"

namespace velnor::host {

// The command's call, handed to the worker by the loop as soon as the request was read; the
// command takes its outcome when it comes to make that call.
struct EarlyCall {
    std::string operation;
    std::shared_ptr<PendingCall> pending;
};

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
    std::optional<EarlyCall> earlyCall;
};

inline constexpr std::size_t kClientDescriptors = 4;

// Hands the command's call to the worker at once, from the loop, when nothing needs doing
// before it: a friendly verb of the daemon's own plug-in whose one call takes the argument the
// command line gives it. Parses the command line and nothing else: no file is read and the
// client is not written to. Nothing when the command is to go the usual way, its calls made in
// turn by runClientCommand.
std::optional<EarlyCall> startCallAtOnce(const ClientCommand& client,
                                         const PluginDescriptor& plugin, Worker& worker);

// Runs the command with its output written to the client's descriptors; its exit status.
// Nothing, with nothing written, when the client is to run it in its own process: for
// --direct, or when it names a plug-in other than the daemon's (pluginPath).
std::optional<int> runClientCommand(const ClientCommand& client, const PluginDescriptor& plugin,
                                    const std::string& pluginPath, Worker& worker);

}  // namespace velnor::host
