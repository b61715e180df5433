#include "TokenBackoff.h"

#include <algorithm>

namespace velnor::host {
namespace {

// Wrong tokens answered at once; each one after them doubles the time in which none is heard.
constexpr unsigned kFreeWrongTokens = 3;
constexpr std::chrono::seconds kLongestRefusal{60};

}  // namespace

std::optional<std::chrono::seconds> TokenBackoff::heardWrong(const TokenSender& sender,
                                                             Clock::time_point now) {
    if (senders_.size() >= kMostTokenSenders && !senders_.contains(sender)) {
        senders_.erase(std::min_element(senders_.begin(), senders_.end(),
                                        [](const auto& one, const auto& other) {
                                            return one.second.lastHeard < other.second.lastHeard;
                                        }));
    }
    if (std::optional<std::chrono::seconds> wait = refusedFor(sender, now)) {
        senders_[sender].lastHeard = now;
        return wait;
    }
    Record& record = senders_[sender];
    record.lastHeard = now;
    ++record.wrongTokens;
    if (record.wrongTokens > kFreeWrongTokens) {
        unsigned doublings = std::min(record.wrongTokens - kFreeWrongTokens - 1, 6U);
        record.refusedUntil =
            now + std::min(kLongestRefusal, std::chrono::seconds(1U << doublings));
    }
    return std::nullopt;
}

std::optional<std::chrono::seconds> TokenBackoff::refusedFor(const TokenSender& sender,
                                                             Clock::time_point now) const {
    auto found = senders_.find(sender);
    if (found == senders_.end() || now >= found->second.refusedUntil) {
        return std::nullopt;
    }
    return std::chrono::ceil<std::chrono::seconds>(found->second.refusedUntil - now);
}

void TokenBackoff::forget(const TokenSender& sender) {
    senders_.erase(sender);
}

}  // namespace velnor::host
