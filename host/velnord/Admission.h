// What velnord does with a request before it reaches the worker: root's is served and asks no
// one; any other account's may only name a verb and its arguments, and polkit decides on the
// verb's action. Also the caps that keep one account's connections from crowding out the rest.
// Pure but for the look at whether a client's process still runs, so that every decision can be
// checked on its own.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "Caller.h"
#include "PeerProcess.h"
#include "Permissions.h"
#include "PlistValue.h"
#include "PolkitAuthority.h"

namespace velnor::host {

struct AdmissionDecision {
    enum class Kind {
        Serve,   // run it now
        Ask,     // run it once polkit allows action
        Refuse,  // refused without asking: refusal says why
    };
    Kind kind = Kind::Serve;
    Action action = Action::Read;
    // The verb as a refusal's report names it: "start", "settings-write", "call", ...
    std::string verb;
    // What it would do, in a refusal's words: "start the service".
    std::string doing;
    // Refuse: the client's words, "not allowed to ...".
    std::string refusal;
};

// The decision for request, a message that has passed the protocol's checks (its version), from
// caller. A command line that does not parse, or only asks for help, is served: it answers text
// and touches nothing. For any account but root: a per-operation call, a "plugin" field, --plugin
// and the verbs that are root's are refused; every other verb is asked about.
AdmissionDecision admissionOf(const Caller& caller, const PlistDictionary& request);

// "not allowed to DOING: ACCOUNT lacks ACTION-ID", the refusal of a verb that polkit refused.
std::string lacksActionRefusal(const AdmissionDecision& decision, const Caller& caller);

// The refusal of a verb when polkit could not be asked: where it does not run (why says so),
// only root is served.
std::string withoutPolkitRefusal(const AdmissionDecision& decision, const Caller& caller,
                                 std::string_view why);

// The refusal of a verb whose client's process ended before it was asked about: its pid may name
// another process by now.
std::string endedProcessRefusal(const AdmissionDecision& decision, const Caller& caller);

// The refusal for polkit's verdict on decision's action; nothing when it is allowed and the
// client's process still runs.
std::optional<std::string> refusalFor(const PolkitVerdict& verdict,
                                      const AdmissionDecision& decision, const PeerProcess& peer);

// The refusal of a verb when polkit was asked and did not answer, or failed.
std::string polkitFailedRefusal(const AdmissionDecision& decision, std::string_view why);

// How many connections the daemon serves at once, and of whom. Root's have their own allowance,
// which no other account's use: 200 idle connections of another account keep no root client out.
// Each other account may hold a few, and all of them together half of root's allowance, so that
// one account cannot take all that the others share either.
struct ConnectionLimits {
    std::size_t root = 128;
    std::size_t others = 64;
    std::size_t perAccount = 8;
};

class ConnectionCaps {
  public:
    explicit ConnectionCaps(ConnectionLimits limits = {}) : limits_(limits) {}

    // Counts one more connection of uid and answers true, or answers false, counting nothing,
    // when uid, or the accounts other than root together, are at their limit.
    bool take(uid_t uid);

    // Counts one connection of uid fewer: it has ended (its command line included).
    void give(uid_t uid);

    const ConnectionLimits& limits() const { return limits_; }

  private:
    ConnectionLimits limits_;
    std::size_t others_ = 0;
    std::map<uid_t, std::size_t> held_;
};

}  // namespace velnor::host
