// How the console slows whoever sends it wrong tokens or wrong passwords, and no one else. A
// sender is known by the account that holds its end of the connection, when that end is on this
// machine, and by the address it came from; a password also by the account it was typed for.
// Each sender's wrong guesses count only against itself, so no account can keep another out by
// guessing wrong itself: not with wrong tokens, and not with wrong passwords for the other's
// account typed from elsewhere.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <compare>
#include <cstddef>
#include <map>
#include <optional>
#include <string>

namespace velnor::host {

struct TokenSender {
    // Known for a peer on this machine that still holds its end of the connection.
    std::optional<uid_t> account;
    // The address the connection came from.
    std::string source;
    // The account a password was typed for; empty for the access token.
    std::string login;

    auto operator<=>(const TokenSender&) const = default;
};

// Enough for every local account and a crowd of addresses, in a few tens of kilobytes.
inline constexpr std::size_t kMostTokenSenders = 256;

class TokenBackoff {
  public:
    using Clock = std::chrono::steady_clock;

    // Hears a wrong token from sender. While the sender is refused, answers how long it must
    // still wait, and the token does not count. Otherwise answers nullopt and counts it: a few
    // are free, and each one after them refuses the sender's next tokens for twice as long as
    // the last, up to a minute. When the table is full, the sender heard from longest ago is
    // forgotten to make room: whoever connects from many addresses costs the daemon a bounded
    // table, never more.
    std::optional<std::chrono::seconds> heardWrong(const TokenSender& sender,
                                                   Clock::time_point now);

    // While the sender is refused, how long it must still wait; nothing counts.
    std::optional<std::chrono::seconds> refusedFor(const TokenSender& sender,
                                                   Clock::time_point now) const;

    // The sender gave the right token: its count starts again.
    void forget(const TokenSender& sender);

  private:
    struct Record {
        unsigned wrongTokens = 0;
        Clock::time_point lastHeard{};
        Clock::time_point refusedUntil{};
    };
    std::map<TokenSender, Record> senders_;
};

}  // namespace velnor::host
