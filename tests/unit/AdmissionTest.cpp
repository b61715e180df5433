// What a request of an account other than root may ask before it is queued, the words of each
// refusal, and the caps on one account's connections.
#include <unistd.h>
// This glibc's header forgets C linkage.
extern "C" {
#include <sys/pidfd.h>
}

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Admission.h"

namespace velnor::host {
namespace {

const Caller kAlice{1000, "alice", 4242, Channel::ControlSocket, {}};
const Caller kRoot{0, "root", 4243, Channel::ControlSocket, {}};

PlistDictionary commandLine(std::vector<std::string> arguments, const char* plugin = nullptr) {
    PlistArray run;
    for (std::string& argument : arguments) {
        run.push_back(PlistValue::data(std::move(argument)));
    }
    PlistDictionary request{{"version", PlistValue::integer(1)}, {"run", PlistValue(run)}};
    if (plugin != nullptr) {
        request.set("plugin", PlistValue::data(plugin));
    }
    return request;
}

// "serve", "ask ACTION-ID VERB" or "refuse VERB: WORDS".
std::string decided(const Caller& caller, const PlistDictionary& request) {
    const AdmissionDecision decision = admissionOf(caller, request);
    switch (decision.kind) {
        case AdmissionDecision::Kind::Serve:
            return "serve";
        case AdmissionDecision::Kind::Ask:
            return "ask " + std::string(actionId(decision.action)) + " " + decision.verb;
        case AdmissionDecision::Kind::Refuse:
            break;
    }
    return "refuse " + decision.verb + ": " + decision.refusal;
}

TEST(Admission, AnotherAccountMayOnlyNameAVerbAndPolkitDecidesOnItsAction) {
    struct Case {
        const char* what;
        PlistDictionary request;
        const char* expected;
    };
    const Case cases[] = {
        {"a state read", commandLine({"status"}), "ask org.velnor.postgres.read status"},
        {"a start", commandLine({"--json", "start"}), "ask org.velnor.postgres.operate start"},
        {"a settings write", commandLine({"settings", "work_mem=12MB"}),
         "ask org.velnor.postgres.configure settings-write"},
        {"a settings check", commandLine({"settings", "--check", "work_mem=12MB"}),
         "ask org.velnor.postgres.configure settings-check"},
        {"help, even naming a plug-in", commandLine({"--help"}, "/tmp/own.so"), "serve"},
        {"a usage error", commandLine({"vacuum"}), "serve"},
        {"--direct, which the client runs itself", commandLine({"--direct", "start"}), "serve"},
        {"a request file", commandLine({"call", "getStateWithRequest", "/etc/shadow"}),
         "refuse call: not allowed to call an operation by its name: only root may"},
        {"standard input", commandLine({"call", "writeSettingsWithRequest", "-"}),
         "refuse call: not allowed to call an operation by its name: only root may"},
        {"the console's token", commandLine({"web-url"}),
         "refuse web-url: not allowed to print the console's address: only root may"},
        {"--plugin", commandLine({"--plugin", "/tmp/own.so", "status"}),
         "refuse status: not allowed to choose the plug-in: only root may"},
        {"the plugin field", commandLine({"status"}, "/tmp/own.so"),
         "refuse status: not allowed to choose the plug-in: only root may"},
        {"an empty plugin field, which names none", commandLine({"status"}, ""),
         "ask org.velnor.postgres.read status"},
        {"a per-operation call",
         PlistDictionary{{"version", PlistValue::integer(1)},
                         {"operation", PlistValue("startServiceWithVariant")}},
         "refuse call startServiceWithVariant: not allowed to call an operation by its name: "
         "only root may"},
        {"a describe request",
         PlistDictionary{{"version", PlistValue::integer(1)},
                         {"operation", PlistValue("getStateWithRequest")},
                         {"describe", PlistValue::boolean(true)}},
         "refuse call getStateWithRequest: not allowed to call an operation by its name: only "
         "root may"},
    };
    for (const Case& row : cases) {
        EXPECT_EQ(decided(kAlice, row.request), row.expected) << row.what;
        EXPECT_EQ(decided(kRoot, row.request), "serve") << row.what << ", from root";
    }
}

TEST(Admission, OneAccountsConnectionsCannotCrowdOutRootOrTheOthers) {
    ConnectionCaps caps(ConnectionLimits{3, 4, 2});
    const uid_t alice = 1000;
    const uid_t bob = 1001;
    const uid_t carol = 1002;
    EXPECT_TRUE(caps.take(alice));
    EXPECT_TRUE(caps.take(alice));
    EXPECT_FALSE(caps.take(alice)) << "alice's third, over her own cap";
    EXPECT_TRUE(caps.take(bob));
    EXPECT_TRUE(caps.take(bob));
    EXPECT_FALSE(caps.take(carol)) << "carol's first, over what all but root share";
    for (int taken = 0; taken < 3; ++taken) {
        EXPECT_TRUE(caps.take(0)) << "root's, beside the others' full share";
    }
    EXPECT_FALSE(caps.take(0)) << "root's fourth, over its own cap";
    caps.give(alice);
    EXPECT_TRUE(caps.take(carol)) << "carol's first, once alice has ended one";
    EXPECT_FALSE(caps.take(alice)) << "alice's, while the others' share is full again";
    caps.give(0);
    EXPECT_TRUE(caps.take(0)) << "root's, once one of root's has ended";
    caps.give(4242);  // an account that holds none: nothing changes
    EXPECT_FALSE(caps.take(alice));
}

}  // namespace
}  // namespace velnor::host
