// What the daemon's two HTTP listeners, the web console and the metrics endpoint, share: binding
// their address, and serving it on a thread of their own.
#pragma once

#include <string>
#include <thread>

#include "Result.h"
#include "WebListen.h"

namespace httplib {
class Server;
}

namespace velnor::host {

// listen's address and port as messages show them: "127.0.0.1:8471".
std::string shownAddress(const WebListen& listen);

// Binds server to listen's address and port. Fails with `could not listen on "ADDR:PORT":
// REASON` when the address is taken or cannot be resolved.
support::Status bindServer(httplib::Server& server, const WebListen& listen);

// Serves what server has bound on a thread of its own, until server.stop(); what escapes the
// serving is logged as "the NAME stopped: ...", and ends the listener, never the daemon.
std::thread serveOnItsOwnThread(httplib::Server& server, std::string name);

}  // namespace velnor::host
