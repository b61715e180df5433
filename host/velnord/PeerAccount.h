// Who is at the other end of a console connection. For a peer on this machine the kernel knows
// the account that opened the peer's socket, and every account can see it in the table of TCP
// sockets; from elsewhere only the address is known.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

namespace velnor::host {

// One end of a TCP connection: a numeric IPv4 or IPv6 address and a port.
struct Endpoint {
    std::string address;
    int port = 0;
};

// The owner of the socket whose own end is peer and whose other end is ours, found in the text of
// a kernel table of TCP sockets (/proc/net/tcp, or /proc/net/tcp6 when ipv6). Nullopt when no
// socket there matches, or when the one that does is no longer held by any process: the kernel
// then reports root as its owner, whoever opened it.
std::optional<uid_t> socketOwnerIn(std::string_view table, bool ipv6, const Endpoint& peer,
                                   const Endpoint& ours);

// The account that holds the peer's end of the connection between peer and ours, when that end is
// a socket on this machine that a process still holds; nullopt otherwise.
std::optional<uid_t> peerAccount(const Endpoint& peer, const Endpoint& ours);

}  // namespace velnor::host
