// The daemon's control socket: root's clients connect, each on a thread of its own that reads
// its requests one at a time and hands the calls to the worker.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <list>
#include <memory>
#include <string>
#include <thread>

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
    ControlServer(const PluginDescriptor& plugin, Worker& worker, support::UniqueFd listener);
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
        std::atomic<bool> finished{false};
        std::thread thread;
    };

    void accept();
    void reapFinished();
    void converse(Connection& connection);
    bool answer(int socket, const PlistDictionary& request);

    const PluginDescriptor& plugin_;
    Worker& worker_;
    support::UniqueFd listener_;
    std::list<std::unique_ptr<Connection>> connections_;
};

}  // namespace velnor::host
