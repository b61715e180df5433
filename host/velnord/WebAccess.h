// Who may use the web console. Only root hands out access: the daemon writes a random token to
// a file that root alone may read, and whoever presents it gets a session, held in a cookie that
// scripts cannot read and that other sites never send. Every change also carries the session's
// CSRF token, the Host header must name the console's own address (so a name that a hostile DNS
// server points at 127.0.0.1 cannot reach it), and whoever sends wrong tokens is answered ever
// more slowly, while the right token is always heard.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "ConsoleFiles.h"
#include "Result.h"
#include "TokenBackoff.h"

namespace velnor::host {

inline constexpr const char* kSessionCookie = "velnor_session";

// bytes random bytes from the kernel, as lower-case hex.
support::Result<std::string> randomHex(std::size_t bytes);

// Compares without returning early, so that the time taken tells nothing of where they differ.
bool sameSecret(const std::string& one, const std::string& other);

// Writes the token to kWebTokenPath (root's, 0600) and the console's address to kWebAddressPath
// (root's, 0644), each replacing what stood there without following links.
support::Status publishAccess(const std::string& token, const std::string& address);

// True when the Host header names the listen address or localhost, with any port (an SSH
// tunnel may forward another local port to the console's).
bool hostIsOurs(const std::string& hostHeader, const std::string& listenAddress);

struct Session {
    std::string csrf;
    std::chrono::steady_clock::time_point expires;
};

class WebAccess {
  public:
    using Clock = std::chrono::steady_clock;

    explicit WebAccess(std::string token) : token_(std::move(token)) {}

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

    // The session with this id, when it exists and has not expired.
    std::optional<Session> session(const std::string& id, Clock::time_point now = Clock::now());

  private:
    void forgetExpired(Clock::time_point now);

    const std::string token_;
    std::mutex mutex_;
    std::map<std::string, Session> sessions_;
    TokenBackoff backoff_;
};

}  // namespace velnor::host
