// The daemon's control socket: root's clients connect, each served on a thread of its own that
// reads its requests one at a time and hands the calls to the worker.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "PluginInterface.h"
#include "Result.h"
#include "UniqueFd.h"
#include "Worker.h"

namespace velnor::host {

// Binds and listens on the socket at path, in a folder that is root's and that no one else may
// write to (created 0755 when missing), the socket itself root's and 0600. A socket that a
// daemon before left behind is replaced when it is root's; anything else in its place (a link,
// a file, another account's socket) is refused.
support::Result<support::UniqueFd> listenOnControlSocket(const std::string& path);

class ControlServer {
  public:
    // pluginPath is the file that plugin was loaded from: a command line that asks for another
    // is left to the client to run in its own process.
    ControlServer(const PluginDescriptor& plugin, std::string pluginPath, Worker& worker,
                  support::UniqueFd listener);
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Serves until stopRequested becomes readable (the daemon's signal descriptor); then stops
    // accepting and returns. Connections still open are ended by close().
    support::Status serve(int stopRequested);

    // Ends every connection (its thread waits for its call first, if it runs one) and joins them.
    void close();

  private:
    struct Connection {
        support::UniqueFd socket;
        pid_t peer = 0;
    };

    void stopAccepting();
    void addAcceptor();
    void acceptConnections();
    std::optional<Connection> nextConnection();
    bool takeOn();
    void converse(Connection& connection);
    bool answer(const Connection& connection, const PlistDictionary& request,
                std::vector<support::UniqueFd>& passed);
    bool answerCall(int socket, const PlistDictionary& request);
    bool answerCommandLine(const Connection& connection, const PlistDictionary& request,
                           std::vector<support::UniqueFd>& passed);

    const PluginDescriptor& plugin_;
    const std::string pluginPath_;
    Worker& worker_;
    support::UniqueFd listener_;
    std::mutex mutex_;
    std::condition_variable allGone_;
    std::size_t threads_ = 0;
    std::size_t waiting_ = 0;
    std::size_t busy_ = 0;
    std::set<int> conversing_;
    bool closed_ = false;
};

}  // namespace velnor::host
