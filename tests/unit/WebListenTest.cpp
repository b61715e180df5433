// Where the web console listens, and which Host headers it answers.
#include <gtest/gtest.h>

#include "WebAccess.h"
#include "WebListen.h"

namespace velnor::host {
namespace {

TEST(WebListen, OnlyLoopbackAddressesMaySpeakPlainHttp) {
    const std::pair<const char*, bool> cases[] = {
        {"127.0.0.1", true},
        {"127.0.0.2", true},
        {"127.255.255.254", true},
        {"::1", true},
        {"::ffff:127.0.0.1", true},
        {"localhost", true},
        {"128.0.0.1", false},
        {"126.255.255.255", false},
        {"192.0.2.2", false},
        {"0.0.0.0", false},
        {"::", false},
        {"::ffff:192.0.2.2", false},
        {"fe80::1%lo", false},
        {"console.example", false},
        {"localhost.example", false},
    };
    for (const auto& [address, loopback] : cases) {
        EXPECT_EQ(isLoopback(WebListen{address, 8471}), loopback) << address;
    }
}

TEST(WebListen, TakesAnAddressAndAPortFromOneToTheLast) {
    // What --web-listen was given, and the address and port it means ("<refused>" when none).
    const std::pair<const char*, const char*> cases[] = {
        {"127.0.0.1:8471", "127.0.0.1 8471"},
        {"0.0.0.0:1", "0.0.0.0 1"},
        {"localhost:65535", "localhost 65535"},
        {"[::1]:8471", "::1 8471"},            // IPv6 in brackets, which are not the address
        {"[fe80::1%lo]:80", "fe80::1%lo 80"},  // a scope stays with the address
        {"127.0.0.1:0", "<refused>"},
        {"127.0.0.1:65536", "<refused>"},
        {"127.0.0.1:-1", "<refused>"},
        {"127.0.0.1:+80", "<refused>"},
        {"127.0.0.1:99999999999999999999", "<refused>"},  // beyond any int
        {"127.0.0.1:80 ", "<refused>"},
        {"127.0.0.1: 80", "<refused>"},
        {"127.0.0.1:0x50", "<refused>"},
        {"127.0.0.1:", "<refused>"},
        {"127.0.0.1", "<refused>"},
        {":8471", "<refused>"},
        {"[]:8471", "<refused>"},
        {"[:8471", "<refused>"},
        {"[::1:8471", "<refused>"},
        {"::1]:8471", "<refused>"},
        {"[::1]]:8471", "<refused>"},
        {"[[::1]]:8471", "<refused>"},
        {"", "<refused>"},
    };
    for (const auto& [text, expected] : cases) {
        support::Result<WebListen> listen = parseWebListen(text);
        EXPECT_EQ(listen ? listen->address + " " + std::to_string(listen->port) : "<refused>",
                  expected)
            << text;
        if (!listen) {
            EXPECT_NE(listen.message().find("ADDR:PORT"), std::string::npos) << text;
        }
    }
}

TEST(WebListen, AHostHeaderIsOursWhenItNamesTheListenAddressOrLocalhostOnAnyPort) {
    struct Case {
        const char* header;
        const char* listen;
        bool ours;
    };
    const Case cases[] = {
        {"127.0.0.1:8471", "127.0.0.1", true},
        {"127.0.0.1", "127.0.0.1", true},
        {"127.0.0.1:9000", "127.0.0.1", true},  // an SSH tunnel's own port
        {"localhost:8471", "127.0.0.1", true},
        {"LocalHost:8471", "127.0.0.1", true},
        {"localhost", "::1", true},
        {"[::1]:8471", "::1", true},
        {"[::1]", "::1", true},
        {"[::1]:8471", "127.0.0.1", false},
        {"127.0.0.1:8471", "::1", false},
        {"::1", "::1", false},  // a header always brackets IPv6
        {"[::1", "::1", false},
        {"127.0.0.2:8471", "127.0.0.1", false},
        {"127.0.0.1.attacker.example:8471", "127.0.0.1", false},  // rebinding: a name for it
        {"attacker.example:8471", "127.0.0.1", false},
        {"localhost.:8471", "127.0.0.1", false},
        {"localhost.attacker.example", "127.0.0.1", false},
        {"127.0.0.1:8471:8471", "127.0.0.1", false},
        {":8471", "127.0.0.1", false},
        {"", "127.0.0.1", false},
        {"", "", false},  // no header never matches, whatever the address
    };
    for (const Case& row : cases) {
        EXPECT_EQ(hostIsOurs(row.header, row.listen), row.ours)
            << "Host: " << row.header << " listening on " << row.listen;
    }
}

}  // namespace
}  // namespace velnor::host
