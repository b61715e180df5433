#include <gtest/gtest.h>

#include "WebAccess.h"

namespace velnor::host {
namespace {

using std::chrono::milliseconds;

const std::string kToken(64, 'a');
const std::string kWrong(64, 'f');
const TokenSender kRoot{0, "127.0.0.1"};
const TokenSender kNobody{65534, "127.0.0.1"};
const TokenSender kUnknownLocal{std::nullopt, "127.0.0.1"};
const TokenSender kRemote{std::nullopt, "198.51.100.7"};

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
                            TokenSender{std::nullopt, "192.0.2." + std::to_string(index)}, false,
                            milliseconds(100), "wrong"});
    }
    attempts.push_back({"one sender more", kRemote, false, milliseconds(200), "wrong"});
    attempts.push_back({"nobody, forgotten, counts from the start again", kNobody, false,
                        milliseconds(300), "wrong"});
    play(access, attempts);
}

}  // namespace
}  // namespace velnor::host
