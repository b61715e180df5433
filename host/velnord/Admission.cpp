#include "Admission.h"

#include <optional>
#include <vector>

#include "CommandLine.h"
#include "ControlProtocol.h"

namespace velnor::host {
namespace {

using Kind = AdmissionDecision::Kind;

AdmissionDecision refused(std::string verb, std::string_view doing) {
    std::string words = "not allowed to " + std::string(doing) + ": only root may";
    return {Kind::Refuse, Action::Read, std::move(verb), std::string(doing), std::move(words)};
}

// A command line of an account other than root.
AdmissionDecision admitCommandLine(const PlistDictionary& request) {
    std::optional<std::vector<std::string>> arguments = runArgumentsOf(request);
    if (!arguments) {
        // The protocol's own error answers it.
        return {};
    }
    std::vector<std::string_view> views(arguments->begin(), arguments->end());
    support::Result<Command> command = parseCommandLine(views);
    // A usage error is told and nothing runs. The client runs --direct in its own process, where
    // the in-process host refuses anyone but root: the daemon only sends it back.
    if (!command || command->direct) {
        return {};
    }
    const std::string verb(permissionVerbOf(*command));
    // The plug-in a client names is a file that root would open and load on its behalf; an
    // empty one, as an empty VELNOR_PLUGIN sends, names none.
    const PlistValue* plugin = request.find("plugin");
    const std::string* pluginPath = plugin != nullptr ? bytesOf(*plugin) : nullptr;
    if (plugin != nullptr && (pluginPath == nullptr || !pluginPath->empty()) && !command->answer) {
        return refused(verb, "choose the plug-in");
    }
    const Permission permission = permissionForCommand(*command);
    switch (permission.kind) {
        case Permission::Kind::Anyone:
            return {};
        case Permission::Kind::RootOnly:
            return refused(verb, permission.doing);
        case Permission::Kind::Action:
            break;
    }
    return {Kind::Ask, permission.action, verb, std::string(permission.doing), {}};
}

}  // namespace

AdmissionDecision admissionOf(const Caller& caller, const PlistDictionary& request) {
    if (caller.isRoot()) {
        return {};
    }
    if (!request.contains("run")) {
        // Any operation with any argument, a request read from a file: root's.
        const std::string* operation = textAt(request, "operation");
        AdmissionDecision decision = refused("call", "call an operation by its name");
        decision.verb = operation != nullptr ? "call " + *operation : "call";
        return decision;
    }
    return admitCommandLine(request);
}

std::string lacksActionRefusal(const AdmissionDecision& decision, const Caller& caller) {
    return "not allowed to " + decision.doing + ": " + caller.account + " lacks " +
           std::string(actionId(decision.action));
}

std::string withoutPolkitRefusal(const AdmissionDecision& decision, const Caller& caller,
                                 std::string_view why) {
    return "not allowed to " + decision.doing + ": velnord serves only root where polkit does " +
           "not run, and " + caller.account + " is not root (" + std::string(why) + ")";
}

std::string endedProcessRefusal(const AdmissionDecision& decision, const Caller& caller) {
    return "not allowed to " + decision.doing + ": the process that connected (pid " +
           std::to_string(caller.pid) + ") has ended";
}

std::optional<std::string> refusalFor(const PolkitVerdict& verdict,
                                      const AdmissionDecision& decision, const PeerProcess& peer) {
    switch (verdict.kind) {
        case PolkitVerdict::Kind::Allowed:
            // Allowed for a process that has gone: the request is no one's any more.
            if (!peerStillRuns(peer)) {
                return endedProcessRefusal(decision, peer.caller);
            }
            return std::nullopt;
        case PolkitVerdict::Kind::Refused:
            return lacksActionRefusal(decision, peer.caller);
        case PolkitVerdict::Kind::NoPolkit:
            return withoutPolkitRefusal(decision, peer.caller, verdict.reason);
        case PolkitVerdict::Kind::Failed:
            break;
    }
    return polkitFailedRefusal(decision, verdict.reason);
}

std::string polkitFailedRefusal(const AdmissionDecision& decision, std::string_view why) {
    return "not allowed to " + decision.doing + ": could not ask polkit: " + std::string(why);
}

bool ConnectionCaps::take(uid_t uid) {
    std::size_t& held = held_[uid];
    const bool room =
        uid == 0 ? held < limits_.root : held < limits_.perAccount && others_ < limits_.others;
    if (!room) {
        if (held == 0) {
            held_.erase(uid);
        }
        return false;
    }
    ++held;
    others_ += uid == 0 ? 0 : 1;
    return true;
}

void ConnectionCaps::give(uid_t uid) {
    auto found = held_.find(uid);
    if (found == held_.end()) {
        return;
    }
    others_ -= uid == 0 ? 0 : 1;
    if (--found->second == 0) {
        held_.erase(found);
    }
}

}  // namespace velnor::host
