#include "WebListen.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cerrno>
#include <charconv>

namespace velnor::host {

bool isLoopback(const WebListen& listen) {
    in_addr four{};
    if (inet_pton(AF_INET, listen.address.c_str(), &four) == 1) {
        return (ntohl(four.s_addr) >> 24) == 127;
    }
    in6_addr six{};
    if (inet_pton(AF_INET6, listen.address.c_str(), &six) == 1) {
        return IN6_IS_ADDR_LOOPBACK(&six) || (IN6_IS_ADDR_V4MAPPED(&six) && six.s6_addr[12] == 127);
    }
    return listen.address == "localhost";
}

support::Result<WebListen> parseWebListen(std::string_view text, std::string_view option) {
    const std::string named(option);
    std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos || colon == 0) {
        return support::Failure{EINVAL, named + " needs ADDR:PORT"};
    }
    std::string_view address = text.substr(0, colon);
    // Brackets come as a pair around the whole address, or not at all: a stray one would only
    // fail later, when the console binds, with a reason that does not name the option.
    const bool bracketed = address.size() >= 2 && address.front() == '[' && address.back() == ']';
    if (bracketed) {
        address = address.substr(1, address.size() - 2);
    }
    if (address.find_first_of("[]") != std::string_view::npos) {
        return support::Failure{EINVAL, named + " needs ADDR:PORT, or [ADDR]:PORT for IPv6"};
    }
    std::string_view portText = text.substr(colon + 1);
    int port = 0;
    auto [end, error] = std::from_chars(portText.data(), portText.data() + portText.size(), port);
    if (error != std::errc() || end != portText.data() + portText.size() || port < 1 ||
        port > 65535 || address.empty()) {
        return support::Failure{EINVAL, named + " needs ADDR:PORT with a port from 1 to 65535"};
    }
    return WebListen{std::string(address), port};
}

}  // namespace velnor::host
