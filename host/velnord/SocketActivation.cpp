#include "SocketActivation.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace velnor::host {
namespace {

// Where the socket listens, as --web-listen would name it.
support::Result<WebListen> listenOf(int descriptor) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return support::couldNot("read the address of", "the console's socket from systemd", errno);
    }
    char text[INET6_ADDRSTRLEN] = {};
    if (address.ss_family == AF_INET) {
        const auto* four = reinterpret_cast<const sockaddr_in*>(&address);
        inet_ntop(AF_INET, &four->sin_addr, text, sizeof text);
        return WebListen{text, ntohs(four->sin_port)};
    }
    if (address.ss_family == AF_INET6) {
        const auto* six = reinterpret_cast<const sockaddr_in6*>(&address);
        inet_ntop(AF_INET6, &six->sin6_addr, text, sizeof text);
        return WebListen{text, ntohs(six->sin6_port)};
    }
    return support::couldNot("serve on", "the console's socket from systemd",
                             "it is not an IPv4 or IPv6 socket");
}

}  // namespace

support::Result<std::optional<ActivatedSocket>> consoleSocketFromSystemd() {
    char** names = nullptr;
    const int count = sd_listen_fds_with_names(1, &names);
    if (count < 0) {
        return support::couldNot("take", "the sockets from systemd", -count);
    }
    std::optional<int> found;
    for (int index = 0; index < count; ++index) {
        if (found == std::nullopt && std::strcmp(names[index], kConsoleSocketName) == 0) {
            found = SD_LISTEN_FDS_START + index;
        } else {
            // A socket velnord has no use for must not stay open in it for ever.
            close(SD_LISTEN_FDS_START + index);
        }
        std::free(names[index]);
    }
    std::free(names);
    if (!found) {
        return std::optional<ActivatedSocket>();
    }
    if (sd_is_socket(*found, AF_UNSPEC, SOCK_STREAM, 1) <= 0) {
        close(*found);
        return support::couldNot("serve on", "the console's socket from systemd",
                                 "it is not a listening stream socket");
    }
    support::Result<WebListen> listen = listenOf(*found);
    if (!listen) {
        close(*found);
        return listen.failure();
    }
    return std::optional<ActivatedSocket>(ActivatedSocket{*found, *listen});
}

}  // namespace velnor::host
