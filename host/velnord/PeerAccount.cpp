#include "PeerAccount.h"

#include <arpa/inet.h>
#include <fcntl.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "DescriptorIo.h"
#include "UniqueFd.h"

namespace velnor::host {
namespace {

// The columns of a socket's line that identify and own it.
constexpr std::size_t kLocalColumn = 1;
constexpr std::size_t kRemoteColumn = 2;
constexpr std::size_t kUidColumn = 7;
constexpr std::size_t kInodeColumn = 9;

// The address as the 16 bytes of IPv6, an IPv4 address mapped into it; nullopt when it is
// neither.
std::optional<std::array<unsigned char, 16>> addressBytes(const std::string& text) {
    std::array<unsigned char, 16> bytes{};
    if (inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1) {
        return bytes;
    }
    in_addr v4{};
    if (inet_pton(AF_INET, text.c_str(), &v4) != 1) {
        return std::nullopt;
    }
    bytes[10] = bytes[11] = 0xFF;
    std::memcpy(bytes.data() + 12, &v4, sizeof v4);
    return bytes;
}

bool isMappedIpv4(const std::array<unsigned char, 16>& bytes) {
    static constexpr unsigned char kPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    return std::memcmp(bytes.data(), kPrefix, sizeof kPrefix) == 0;
}

// The endpoint as the kernel's table writes it: each 32-bit word of the address as the machine
// holds it, in hexadecimal, then the port. Nullopt for an IPv6 address in the IPv4 table.
std::optional<std::string> tableText(const Endpoint& endpoint, bool ipv6) {
    std::optional<std::array<unsigned char, 16>> bytes = addressBytes(endpoint.address);
    if (!bytes || (!ipv6 && !isMappedIpv4(*bytes))) {
        return std::nullopt;
    }
    std::string text;
    for (std::size_t at = ipv6 ? 0 : 12; at < bytes->size(); at += 4) {
        std::uint32_t word = 0;
        std::memcpy(&word, bytes->data() + at, sizeof word);
        char hex[9];
        std::snprintf(hex, sizeof hex, "%08X", word);
        text += hex;
    }
    char port[6];
    std::snprintf(port, sizeof port, "%04X", static_cast<unsigned>(endpoint.port) & 0xFFFF);
    return text + ":" + port;
}

std::vector<std::string_view> columnsOf(std::string_view line) {
    std::vector<std::string_view> columns;
    while (!line.empty()) {
        std::size_t start = line.find_first_not_of(' ');
        if (start == std::string_view::npos) {
            break;
        }
        line.remove_prefix(start);
        std::size_t end = line.find(' ');
        columns.push_back(line.substr(0, end));
        line.remove_prefix(end == std::string_view::npos ? line.size() : end);
    }
    return columns;
}

std::optional<unsigned long> numberIn(std::string_view text) {
    unsigned long number = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return number;
}

std::string readTable(const char* path) {
    support::UniqueFd table(open(path, O_RDONLY | O_CLOEXEC));
    std::string contents;
    if (!table.valid() || !support::readAll(table.get(), contents)) {
        return {};
    }
    return contents;
}

}  // namespace

std::optional<uid_t> socketOwnerIn(std::string_view table, bool ipv6, const Endpoint& peer,
                                   const Endpoint& ours) {
    const std::optional<std::string> local = tableText(peer, ipv6);
    const std::optional<std::string> remote = tableText(ours, ipv6);
    if (!local || !remote) {
        return std::nullopt;
    }
    while (!table.empty()) {
        std::size_t end = table.find('\n');
        std::vector<std::string_view> columns = columnsOf(table.substr(0, end));
        table.remove_prefix(end == std::string_view::npos ? table.size() : end + 1);
        if (columns.size() <= kInodeColumn || columns[kLocalColumn] != *local ||
            columns[kRemoteColumn] != *remote) {
            continue;
        }
        std::optional<unsigned long> uid = numberIn(columns[kUidColumn]);
        std::optional<unsigned long> inode = numberIn(columns[kInodeColumn]);
        if (!uid || !inode || *inode == 0) {
            return std::nullopt;
        }
        return static_cast<uid_t>(*uid);
    }
    return std::nullopt;
}

std::optional<uid_t> peerAccount(const Endpoint& peer, const Endpoint& ours) {
    // An IPv4 peer may still have connected through an IPv6 socket, to the mapped address.
    if (std::optional<uid_t> owner = socketOwnerIn(readTable("/proc/net/tcp"), false, peer, ours)) {
        return owner;
    }
    return socketOwnerIn(readTable("/proc/net/tcp6"), true, peer, ours);
}

}  // namespace velnor::host
