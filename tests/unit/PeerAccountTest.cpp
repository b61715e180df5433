#include <gtest/gtest.h>

#include "PeerAccount.h"

namespace velnor::host {
namespace {

// A socket's line as the kernel writes it, with its ends, state, owner and inode.
std::string line(const std::string& local, const std::string& remote, const char* state,
                 const char* uid, const char* inode) {
    return "   1: " + local + " " + remote + " " + state +
           " 00000000:00000000 00:00000000 00000000 " + uid + "        0 " + inode +
           " 1 0000000000000000 20 4 30 10 -1\n";
}

constexpr const char* kHeader =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout "
    "inode\n";
// 127.0.0.1:54321 connected to the console at 127.0.0.1:8471, seen from both ends.
constexpr const char* kPeer = "0100007F:D431";
constexpr const char* kConsole = "0100007F:2117";
constexpr const char* kMappedPeer = "0000000000000000FFFF00000100007F:D431";
constexpr const char* kMappedConsole = "0000000000000000FFFF00000100007F:2117";

TEST(PeerAccount, FindsTheOwnerOfThePeersLiveSocketOnly) {
    const Endpoint peer{"127.0.0.1", 54321};
    const Endpoint console{"127.0.0.1", 8471};
    const std::string listener = line(kConsole, "00000000:0000", "0A", "0", "4001");
    const std::string ours = line(kConsole, kPeer, "01", "0", "4002");
    struct Case {
        const char* what;
        std::string table;
        bool ipv6;
        Endpoint peer;
        std::optional<uid_t> owner;
    };
    const Case cases[] = {
        {"the peer's socket, held by nobody",
         kHeader + listener + ours + line(kPeer, kConsole, "01", "65534", "4003"), false, peer,
         65534},
        {"the peer's socket, half closed", kHeader + line(kPeer, kConsole, "05", "1000", "4003"),
         false, peer, 1000},
        {"a socket no process holds any more, shown as root's",
         kHeader + line(kPeer, kConsole, "06", "0", "0"), false, peer, std::nullopt},
        {"only the console's own end and its listener", kHeader + listener + ours, false, peer,
         std::nullopt},
        {"another port of the same address",
         kHeader + line("0100007F:D432", kConsole, "01", "65534", "4003"), false, peer,
         std::nullopt},
        {"an IPv6 socket connected to the mapped address",
         kHeader + line(kMappedPeer, kMappedConsole, "01", "65534", "4003"), true,
         Endpoint{"::ffff:127.0.0.1", 54321}, 65534},
        {"the mapped peer's IPv4 socket", kHeader + line(kPeer, kConsole, "01", "1000", "4003"),
         false, Endpoint{"::ffff:127.0.0.1", 54321}, 1000},
        {"an IPv6 peer in the IPv4 table", kHeader + line(kPeer, kConsole, "01", "1000", "4003"),
         false, Endpoint{"::1", 54321}, std::nullopt},
        {"a line cut short", kHeader + std::string("   1: ") + kPeer + " " + kConsole + " 01\n",
         false, peer, std::nullopt},
        {"an owner that is not a number", kHeader + line(kPeer, kConsole, "01", "x", "4003"), false,
         peer, std::nullopt},
        {"a peer address that is not numeric", kHeader + line(kPeer, kConsole, "01", "0", "4003"),
         false, Endpoint{"localhost", 54321}, std::nullopt},
        {"an empty table", "", false, peer, std::nullopt},
    };
    for (const Case& row : cases) {
        EXPECT_EQ(socketOwnerIn(row.table, row.ipv6, row.peer, console), row.owner) << row.what;
    }
}

TEST(PeerAccount, ReadsTheIpv6TableWordByWord) {
    const std::string table =
        std::string(kHeader) + line("00000000000000000000000001000000:D431",
                                    "00000000000000000000000001000000:2117", "01", "42", "77");
    EXPECT_EQ(socketOwnerIn(table, true, Endpoint{"::1", 54321}, Endpoint{"::1", 8471}), 42U);
}

}  // namespace
}  // namespace velnor::host
