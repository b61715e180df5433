#include "HttpListener.h"

#include <httplib.h>
#include <signal.h>
#include <syslog.h>

#include <cerrno>
#include <exception>

namespace velnor::host {

std::string shownAddress(const WebListen& listen) {
    return listen.address + ":" + std::to_string(listen.port);
}

support::Status bindServer(httplib::Server& server, const WebListen& listen) {
    errno = 0;
    if (server.bind_to_port(listen.address, listen.port)) {
        return {};
    }
    // The library closes the socket that it could not bind and leaves that bind's errno; a name
    // that it could not resolve leaves none.
    const int error = errno;
    return error != 0 ? support::couldNot("listen on", shownAddress(listen), error)
                      : support::couldNot("listen on", shownAddress(listen),
                                          "the address cannot be bound");
}

std::thread serveOnItsOwnThread(httplib::Server& server, std::string name) {
    return std::thread([&server, name = std::move(name)] {
        // The library writes without MSG_NOSIGNAL: a peer gone mid-answer must be an error for
        // this thread, never a SIGPIPE for the daemon. Its serving threads inherit the mask.
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
        // The top of the listener's thread: the listener may end, never the daemon.
        try {
            server.listen_after_bind();
        } catch (const std::exception& exception) {
            ::syslog(LOG_ERR, "the %s stopped: %s", name.c_str(), exception.what());
        } catch (...) {
            ::syslog(LOG_ERR, "the %s stopped on an exception of an unknown type", name.c_str());
        }
    });
}

}  // namespace velnor::host
