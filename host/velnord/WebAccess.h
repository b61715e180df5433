// Who may use the web console. An account logs in with its own password, which the system's PAM
// stack for the console checks; root may also present the random token that the daemon writes to
// a file that root alone may read. Either way a session follows, held in a cookie that scripts
// cannot read and that other sites never send, and it ends on logout, after a time unused, or at
// the latest after a day's work. Every change also carries the session's
// CSRF token, the Host header must name the console's own address (so a name that a hostile DNS
// server points at 127.0.0.1 cannot reach it), and whoever sends wrong tokens is answered ever
// more slowly, while the right token is always heard.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "ConsoleFiles.h"
#include "Result.h"
#include "TokenBackoff.h"

namespace velnor::host {

inline constexpr const char* kSessionCookie = "velnor_session";

// bytes random bytes from the kernel, as lower-case hex.
support::Result<std::string> randomHex(std::size_t bytes);

// What a console session is left unused before it ends, unless --web-idle-timeout says otherwise.
inline constexpr std::chrono::seconds kDefaultIdleTimeout{15 * 60};

// Compares without returning early, so that the time taken tells nothing of where they differ.
bool sameSecret(const std::string& one, const std::string& other);

// Writes the token to kWebTokenPath (root's, 0600), the console's address to kWebAddressPath and
// its certificate's fingerprint to kWebFingerprintPath (root's, 0644), each replacing what stood
// there without following links; without a fingerprint (no TLS), that file is removed.
support::Status publishAccess(const std::string& token, const std::string& address,
                              const std::string& fingerprint);

// True when the Host header names the listen address or localhost, with any port (an SSH
// tunnel may forward another local port to the console's).
bool hostIsOurs(const std::string& hostHeader, const std::string& listenAddress);

struct Session {
    std::string csrf;
    // Who logged in: root through the token, or the account whose password was checked.
    uid_t uid = 0;
    std::string account;
    std::chrono::steady_clock::time_point lastUsed;
    std::chrono::steady_clock::time_point expires;
};

class WebAccess {
  public:
    using Clock = std::chrono::steady_clock;

    explicit WebAccess(std::string token, std::chrono::seconds idleTimeout = kDefaultIdleTimeout)
        : token_(std::move(token)), idleTimeout_(idleTimeout) {}

    // What came of presenting a token: a new session's id, or why there is none.
    struct Exchange {
        std::optional<std::string> session;
        // When refused because wrong tokens came too fast: how long to wait.
        std::optional<std::chrono::seconds> retryAfter;
    };
    // Exchanges the token for a session; the right token always gets one, and starts its
    // sender's count of wrong tokens again. After a few wrong tokens from one sender, that
    // sender's further wrong tokens are refused for a time that doubles with each one heard.
    Exchange exchange(const std::string& presented, const TokenSender& sender,
                      Clock::time_point now = Clock::now());

    // Whether sender may have its password for sender.login checked now: nullopt when it may
    // (the login is then in flight until finishLogin), else how long it must wait. A sender's
    // logins for one account are weighed one at a time, so that guesses sent at once cannot all
    // pass before the first wrong one counts; a second one while the first is weighed waits a
    // second.
    std::optional<std::chrono::seconds> beginLogin(const TokenSender& sender,
                                                   Clock::time_point now = Clock::now());
    // Ends the login that beginLogin let through. A right password opens a session for the
    // account (its id is answered) and starts the sender's count again; a wrong one counts
    // against the sender as a wrong token does, and answers how long it must now wait, if at all.
    Exchange finishLogin(const TokenSender& sender, std::optional<uid_t> rightPasswordOf,
                         Clock::time_point now = Clock::now());

    // The session with this id, when it exists, has not expired and has been used within the
    // idle timeout; its use now keeps it open for another idle timeout.
    std::optional<Session> session(const std::string& id, Clock::time_point now = Clock::now());
    // Whether the session is still open, without counting as its use (an open event stream).
    bool stillOpen(const std::string& id, Clock::time_point now = Clock::now());
    // Ends the session (a logout); nothing for one that has already ended.
    void end(const std::string& id);

  private:
    std::optional<std::string> open(uid_t uid, std::string account, Clock::time_point now);
    void forgetExpired(Clock::time_point now);

    const std::string token_;
    const std::chrono::seconds idleTimeout_;
    std::mutex mutex_;
    std::map<std::string, Session> sessions_;
    TokenBackoff backoff_;
    std::set<TokenSender> loginsInFlight_;
};

}  // namespace velnor::host
