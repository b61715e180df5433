#include <gtest/gtest.h>

#include "WebAccess.h"

namespace velnor::host {
namespace {

using std::chrono::milliseconds;

const std::string kToken(64, 'a');
const std::string kWrong(64, 'f');
const TokenSender kRoot{0, "127.0.0.1", ""};
const TokenSender kNobody{65534, "127.0.0.1", ""};
const TokenSender kUnknownLocal{std::nullopt, "127.0.0.1", ""};
const TokenSender kRemote{std::nullopt, "198.51.100.7", ""};

// What the exchange answered: "session", "wrong" or "wait N".
std::string answer(const WebAccess::Exchange& exchange) {
    if (exchange.session) {
        return exchange.retryAfter ? "session and a wait" : "session";
    }
    return exchange.retryAfter ? "wait " + std::to_string(exchange.retryAfter->count()) : "wrong";
}

struct Attempt {
    const char* what;
    TokenSender sender;
    bool right;
    milliseconds at;
    const char* expected;
};

void play(WebAccess& access, const std::vector<Attempt>& attempts) {
    const WebAccess::Clock::time_point start{};
    for (const Attempt& attempt : attempts) {
        EXPECT_EQ(answer(access.exchange(attempt.right ? kToken : kWrong, attempt.sender,
                                         start + attempt.at)),
                  attempt.expected)
            << attempt.what;
    }
}

TEST(WebAccess, WrongTokensSlowOnlyTheirSenderAndTheRightTokenIsNeverRefused) {
    WebAccess access(kToken);
    play(access,
         {
             {"nobody's first wrong token", kNobody, false, milliseconds(0), "wrong"},
             {"its second", kNobody, false, milliseconds(0), "wrong"},
             {"its third", kNobody, false, milliseconds(0), "wrong"},
             {"its fourth, which starts a refusal", kNobody, false, milliseconds(0), "wrong"},
             {"its fifth, refused", kNobody, false, milliseconds(0), "wait 1"},
             {"root's right token meanwhile", kRoot, true, milliseconds(0), "session"},
             {"root's own wrong token", kRoot, false, milliseconds(0), "wrong"},
             {"an unknown local account", kUnknownLocal, false, milliseconds(0), "wrong"},
             {"another machine", kRemote, false, milliseconds(0), "wrong"},
             {"nobody, half a second on", kNobody, false, milliseconds(500), "wait 1"},
             {"nobody's own right token", kNobody, true, milliseconds(500), "session"},
             {"nobody's count started again", kNobody, false, milliseconds(500), "wrong"},
         });
}

TEST(WebAccess, RefusalsDoubleWithEachWrongTokenHeardUpToAMinute) {
    WebAccess access(kToken);
    std::vector<Attempt> attempts(4,
                                  {"a free wrong token", kNobody, false, milliseconds(0), "wrong"});
    // Each wrong token sent as the last refusal ends is heard, and refused for twice as long.
    const std::pair<int, const char*> refusals[] = {
        {1, "wait 1"},   {2, "wait 2"},   {4, "wait 4"},   {8, "wait 8"},
        {16, "wait 16"}, {32, "wait 32"}, {60, "wait 60"}, {60, "wait 60"}};
    milliseconds at(0);
    for (const auto& [seconds, expected] : refusals) {
        attempts.push_back({"refused at once", kNobody, false, at, expected});
        attempts.push_back({"refused to its last millisecond", kNobody, false,
                            at + std::chrono::seconds(seconds) - milliseconds(1), "wait 1"});
        at += std::chrono::seconds(seconds);
        attempts.push_back({"heard as the refusal ends", kNobody, false, at, "wrong"});
    }
    play(access, attempts);
}

TEST(WebAccess, TheSenderHeardFromLongestAgoMakesRoomForANewOne) {
    WebAccess access(kToken);
    std::vector<Attempt> attempts(
        4, {"nobody's wrong tokens", kNobody, false, milliseconds(0), "wrong"});
    attempts.push_back({"nobody refused for a second", kNobody, false, milliseconds(0), "wait 1"});
    for (std::size_t index = 1; index < kMostTokenSenders; ++index) {
        attempts.push_back({"a crowd that fills the table",
                            TokenSender{std::nullopt, "192.0.2." + std::to_string(index), ""},
                            false, milliseconds(100), "wrong"});
    }
    attempts.push_back({"one sender more", kRemote, false, milliseconds(200), "wrong"});
    attempts.push_back({"nobody, forgotten, counts from the start again", kNobody, false,
                        milliseconds(300), "wrong"});
    play(access, attempts);
}

// A password typed for login from sender, right or not; "session ACCOUNT", "wrong", "wrong, wait
// N" or, refused before it is weighed, "wait N".
std::string logIn(WebAccess& access, const TokenSender& sender, bool right,
                  WebAccess::Clock::time_point now) {
    if (std::optional<std::chrono::seconds> wait = access.beginLogin(sender, now)) {
        return "wait " + std::to_string(wait->count());
    }
    WebAccess::Exchange exchange =
        access.finishLogin(sender, right ? std::optional<uid_t>(1000) : std::nullopt, now);
    if (exchange.session) {
        return "session " + access.session(*exchange.session, now)->account;
    }
    return exchange.retryAfter ? "wrong, wait " + std::to_string(exchange.retryAfter->count())
                               : "wrong";
}

TEST(WebAccess, WrongPasswordsSlowOnlyTheirSenderForTheAccountTyped) {
    const TokenSender strangerForAlice{std::nullopt, "198.51.100.7", "alice"};
    const TokenSender strangerForBob{std::nullopt, "198.51.100.7", "bob"};
    const TokenSender aliceAtHerDesk{std::nullopt, "203.0.113.5", "alice"};
    const TokenSender nobodyLocalForAlice{65534, "127.0.0.1", "alice"};
    const TokenSender aliceLocal{1000, "127.0.0.1", "alice"};
    struct Row {
        const char* what;
        TokenSender sender;
        bool right;
        milliseconds at;
        const char* expected;
    };
    const Row rows[] = {
        {"the stranger's first wrong password for alice", strangerForAlice, false, milliseconds(0),
         "wrong"},
        {"its second", strangerForAlice, false, milliseconds(0), "wrong"},
        {"its third", strangerForAlice, false, milliseconds(0), "wrong"},
        {"its fourth starts a refusal", strangerForAlice, false, milliseconds(0), "wrong, wait 1"},
        {"its fifth is not weighed", strangerForAlice, false, milliseconds(10), "wait 1"},
        {"nor is its right one, from where it guessed", strangerForAlice, true, milliseconds(20),
         "wait 1"},
        {"alice from her desk meanwhile", aliceAtHerDesk, true, milliseconds(30), "session alice"},
        {"the stranger, for another account", strangerForBob, false, milliseconds(40), "wrong"},
        {"nobody here, for alice", nobodyLocalForAlice, false, milliseconds(50), "wrong"},
        {"alice here, beside nobody", aliceLocal, true, milliseconds(60), "session alice"},
        {"the stranger once its refusal ends", strangerForAlice, false, milliseconds(1000),
         "wrong, wait 2"},
        {"and its right password after that", strangerForAlice, true, milliseconds(3000),
         "session alice"},
        {"which starts its count again", strangerForAlice, false, milliseconds(3000), "wrong"},
    };
    WebAccess access(kToken);
    const WebAccess::Clock::time_point start{};
    for (const Row& row : rows) {
        EXPECT_EQ(logIn(access, row.sender, row.right, start + row.at), row.expected) << row.what;
    }
}

TEST(WebAccess, OneSendersLoginsForAnAccountAreWeighedOneAtATime) {
    const TokenSender guesser{std::nullopt, "198.51.100.7", "alice"};
    const TokenSender elsewhere{std::nullopt, "203.0.113.5", "alice"};
    WebAccess access(kToken);
    const WebAccess::Clock::time_point now{};
    ASSERT_EQ(access.beginLogin(guesser, now), std::nullopt);
    EXPECT_EQ(access.beginLogin(guesser, now), std::chrono::seconds(1))
        << "a second guess while the first is weighed";
    EXPECT_EQ(access.beginLogin(elsewhere, now), std::nullopt) << "alice from elsewhere";
    access.finishLogin(guesser, std::nullopt, now);
    EXPECT_EQ(access.beginLogin(guesser, now), std::nullopt) << "once the first is weighed";
}

TEST(WebAccess, SessionsEndWhenUnusedWhenOldAndOnLogout) {
    using std::chrono::hours;
    using std::chrono::minutes;
    const auto start = WebAccess::Clock::time_point{};
    struct Row {
        const char* what;
        std::vector<minutes> usedAt;  // after the login, in order
        minutes askedAt;
        bool logout;
        bool open;
    };
    const Row rows[] = {
        {"asked at once", {}, minutes(0), false, true},
        {"a minute before the idle timeout", {}, minutes(14), false, true},
        {"at the idle timeout", {}, minutes(15), false, false},
        {"used within each timeout", {minutes(10), minutes(20)}, minutes(34), false, true},
        {"unused for the timeout after its last use", {minutes(10)}, minutes(25), false, false},
        {"used all day long, at the end of its life",
         [] {
             std::vector<minutes> uses;
             for (minutes at(10); at < hours(12); at += minutes(10)) {
                 uses.push_back(at);
             }
             return uses;
         }(),
         hours(12), false, false},
        {"after logout", {}, minutes(1), true, false},
    };
    for (const Row& row : rows) {
        WebAccess access(kToken, minutes(15));
        const std::string id = *access.exchange(kToken, kRoot, start).session;
        for (minutes at : row.usedAt) {
            access.session(id, start + at);
        }
        if (row.logout) {
            access.end(id);
        }
        EXPECT_EQ(access.stillOpen(id, start + row.askedAt), row.open) << row.what;
        EXPECT_EQ(access.session(id, start + row.askedAt).has_value(), row.open) << row.what;
    }
}

TEST(WebAccess, AnOpenFeedIsNoUseOfItsSession) {
    WebAccess access(kToken, std::chrono::minutes(15));
    const auto start = WebAccess::Clock::time_point{};
    const std::string id = *access.exchange(kToken, kRoot, start).session;
    EXPECT_TRUE(access.stillOpen(id, start + std::chrono::minutes(14)));
    EXPECT_FALSE(access.stillOpen(id, start + std::chrono::minutes(15)));
}

}  // namespace
}  // namespace velnor::host
