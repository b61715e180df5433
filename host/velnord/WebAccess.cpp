#include "WebAccess.h"

#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "PathNames.h"
#include "RootFolder.h"
#include "SafePath.h"

namespace velnor::host {
namespace {

// However busy, a session ends after a day's work: a stolen cookie is not good for ever.
constexpr std::chrono::hours kSessionLife{12};
// How long a sender waits whose earlier password for the same account is still being weighed.
constexpr std::chrono::seconds kLoginInFlightWait{1};
constexpr std::size_t kMostSessions = 32;

}  // namespace

support::Result<std::string> randomHex(std::size_t bytes) {
    std::string raw(bytes, '\0');
    std::size_t filled = 0;
    while (filled < bytes) {
        ssize_t got = getrandom(raw.data() + filled, bytes - filled, 0);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            return support::couldNot("read", "the kernel's random numbers", errno);
        }
        filled += static_cast<std::size_t>(got);
    }
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char byte : raw) {
        hex += kDigits[byte >> 4];
        hex += kDigits[byte & 0xF];
    }
    return hex;
}

bool sameSecret(const std::string& one, const std::string& other) {
    if (one.size() != other.size()) {
        return false;
    }
    unsigned char difference = 0;
    for (std::size_t index = 0; index < one.size(); ++index) {
        difference |= static_cast<unsigned char>(one[index] ^ other[index]);
    }
    return difference == 0;
}

support::Status publishAccess(const std::string& token, const std::string& address,
                              const std::string& fingerprint) {
    support::Result<support::UniqueFd> folder =
        support::openRootOnlyFolder(support::folderOf(kWebTokenPath), "web console folder");
    if (!folder) {
        return folder.failure();
    }
    const support::Attributes readable{0644, 0, 0, "root:root"};
    if (auto written = support::replaceFile(kWebTokenPath, token + "\n",
                                            support::Attributes{0600, 0, 0, "root:root"});
        !written) {
        return written;
    }
    if (fingerprint.empty()) {
        const std::string name = support::lastNameOf(kWebFingerprintPath);
        if (unlinkat(folder->get(), name.c_str(), 0) != 0 && errno != ENOENT) {
            return support::couldNot("remove", kWebFingerprintPath, errno);
        }
    } else if (auto written =
                   support::replaceFile(kWebFingerprintPath, fingerprint + "\n", readable);
               !written) {
        return written;
    }
    return support::replaceFile(kWebAddressPath, address + "\n", readable);
}

bool hostIsOurs(const std::string& hostHeader, const std::string& listenAddress) {
    std::string name = hostHeader;
    if (!name.empty() && name.front() == '[') {
        std::size_t close = name.find(']');
        name = close == std::string::npos ? std::string() : name.substr(0, close + 1);
    } else if (std::size_t colon = name.rfind(':'); colon != std::string::npos) {
        name.resize(colon);
    }
    std::string lowered = name;
    std::transform(lowered.begin(), lowered.end(), lowered.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    const std::string bare =
        listenAddress.find(':') != std::string::npos ? "[" + listenAddress + "]" : listenAddress;
    return !lowered.empty() && (lowered == "localhost" || lowered == bare);
}

WebAccess::Exchange WebAccess::exchange(const std::string& presented, const TokenSender& sender,
                                        Clock::time_point now) {
    std::lock_guard lock(mutex_);
    // The token is weighed before any refusal: a refusal that held back the right token would let
    // whoever sends wrong ones keep its holder out.
    if (!sameSecret(presented, token_)) {
        return {std::nullopt, backoff_.heardWrong(sender, now)};
    }
    backoff_.forget(sender);
    return {open(0, "root", now), std::nullopt};
}

std::optional<std::chrono::seconds> WebAccess::beginLogin(const TokenSender& sender,
                                                          Clock::time_point now) {
    std::lock_guard lock(mutex_);
    if (std::optional<std::chrono::seconds> wait = backoff_.refusedFor(sender, now)) {
        return wait;
    }
    if (!loginsInFlight_.insert(sender).second) {
        return kLoginInFlightWait;
    }
    return std::nullopt;
}

WebAccess::Exchange WebAccess::finishLogin(const TokenSender& sender,
                                           std::optional<uid_t> rightPasswordOf,
                                           Clock::time_point now) {
    std::lock_guard lock(mutex_);
    loginsInFlight_.erase(sender);
    if (!rightPasswordOf) {
        backoff_.heardWrong(sender, now);
        return {std::nullopt, backoff_.refusedFor(sender, now)};
    }
    backoff_.forget(sender);
    return {open(*rightPasswordOf, sender.login, now), std::nullopt};
}

std::optional<std::string> WebAccess::open(uid_t uid, std::string account, Clock::time_point now) {
    forgetExpired(now);
    if (sessions_.size() >= kMostSessions) {
        sessions_.erase(std::min_element(sessions_.begin(), sessions_.end(),
                                         [](const auto& one, const auto& other) {
                                             return one.second.lastUsed < other.second.lastUsed;
                                         }));
    }
    support::Result<std::string> id = randomHex(32);
    support::Result<std::string> csrf = randomHex(32);
    if (!id || !csrf) {
        return std::nullopt;
    }
    sessions_[*id] = Session{*csrf, uid, std::move(account), now, now + kSessionLife};
    return *id;
}

std::optional<Session> WebAccess::session(const std::string& id, Clock::time_point now) {
    std::lock_guard lock(mutex_);
    forgetExpired(now);
    auto found = sessions_.find(id);
    if (found == sessions_.end()) {
        return std::nullopt;
    }
    found->second.lastUsed = now;
    return found->second;
}

bool WebAccess::stillOpen(const std::string& id, Clock::time_point now) {
    std::lock_guard lock(mutex_);
    forgetExpired(now);
    return sessions_.contains(id);
}

void WebAccess::end(const std::string& id) {
    std::lock_guard lock(mutex_);
    sessions_.erase(id);
}

void WebAccess::forgetExpired(Clock::time_point now) {
    std::erase_if(sessions_, [this, now](const auto& entry) {
        return entry.second.expires <= now || entry.second.lastUsed + idleTimeout_ <= now;
    });
}

}  // namespace velnor::host
