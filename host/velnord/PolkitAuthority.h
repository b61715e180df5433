// Asking polkit whether a client's process may take an action, over the system bus and on the
// daemon's event loop: the question goes out and the loop serves everyone else until the answer
// comes back, so a slow or hung polkitd delays only the one who asked. No question is asked with
// interaction: an action that would need a password is a refusal.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "PeerProcess.h"

typedef struct sd_bus sd_bus;
typedef struct sd_bus_slot sd_bus_slot;
typedef struct sd_event sd_event;

namespace velnor::host {

struct PolkitVerdict {
    enum class Kind {
        Allowed,
        Refused,   // polkit says no, or would ask for a password
        NoPolkit,  // no system bus, or no polkitd on it: only root may be served
        Failed,    // polkit was there but did not answer, or answered an error
    };
    Kind kind = Kind::Refused;
    // For NoPolkit and Failed: why, in words.
    std::string reason;
};

using PolkitAnswer = std::function<void(PolkitVerdict)>;

// How long polkitd gets to answer one question.
inline constexpr std::chrono::seconds kPolkitDeadline{10};

// A question on its way; destroying it before the answer cancels it, and the answer is never
// given.
class PolkitQuestion {
  public:
    PolkitQuestion() = default;
    explicit PolkitQuestion(sd_bus_slot* slot) : slot_(slot) {}
    ~PolkitQuestion();
    PolkitQuestion(PolkitQuestion&& other) noexcept;
    PolkitQuestion& operator=(PolkitQuestion&& other) noexcept;

  private:
    sd_bus_slot* slot_ = nullptr;
};

class PolkitAuthority {
  public:
    // Uses the event loop that the daemon runs; connects to the system bus when first asked, and
    // again after the bus went away.
    explicit PolkitAuthority(sd_event* event);
    ~PolkitAuthority();
    PolkitAuthority(const PolkitAuthority&) = delete;
    PolkitAuthority& operator=(const PolkitAuthority&) = delete;

    // Asks whether process may take the action actionId. answer is called on the loop's thread
    // once polkit has answered or kPolkitDeadline has passed; at once, before this returns, when
    // there is no system bus to ask on. Keep the question for as long as the answer is wanted.
    PolkitQuestion check(const PeerProcess& process, std::string_view actionId,
                         PolkitAnswer answer);

  private:
    // The bus, connected and attached to the loop; nullptr with why set when there is none.
    sd_bus* bus(std::string& why);

    sd_event* event_;
    sd_bus* bus_ = nullptr;
};

}  // namespace velnor::host
