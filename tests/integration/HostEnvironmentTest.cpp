// What the host sets up around a call: which module it loads, what it refuses to load, the
// database socket folder, and the plug-in's log on standard error.
#include "HostFixture.h"

namespace velnor::testing {
namespace {

class HostEnvironmentTest : public HostFixture {};

TEST_F(HostEnvironmentTest, PluginFromTheEnvironmentWhenNoOptionNamesOne) {
    EnvironmentChanges changes = environment();
    changes["VELNOR_PLUGIN"] = VELNOR_TEST_PLUGIN;
    VelnorRun run = runVelnor({"--json", "call", "doIdleAtCount", "5"}, changes);
    EXPECT_EQ(run.exitStatus, 0) << run.err;
    EXPECT_EQ(run.out, "5\n");

    changes["VELNOR_PLUGIN"] = path("nowhere.so");
    VelnorRun overridden =
        runVelnor({"--plugin", VELNOR_TEST_PLUGIN, "call", "doIdleAtCount"}, changes);
    EXPECT_EQ(overridden.exitStatus, 0) << "--plugin must win: " << overridden.err;
}

TEST_F(HostEnvironmentTest, ModuleThatCannotBeUsedExitsSixtyNine) {
    std::string text = writeFile("text.so", "not a shared object\n");
    struct Case {
        std::string module;
        const char* why;
    };
    const Case cases[] = {
        {path("missing.so"), "cannot load plug-in"},
        {text, "cannot load plug-in"},
        {VELNOR_COMMON_LIBRARY, "VelnorPluginDescriptor"},
        {VELNOR_TEST_PLUGIN_OTHER_VERSION, "interface version"},
    };
    for (const Case& test : cases) {
        VelnorRun run = runVelnor({"--plugin", test.module, "status"}, environment());
        EXPECT_EQ(run.exitStatus, 69) << test.module << ": " << run.err;
        EXPECT_NE(run.err.find(test.module), std::string::npos) << run.err;
        EXPECT_NE(run.err.find(test.why), std::string::npos) << run.err;
        EXPECT_EQ(run.err.find("velnor_test_plugin: initialize"), std::string::npos)
            << "a module of another version must not be initialised: " << run.err;
    }
}

TEST_F(HostEnvironmentTest, RealPluginModuleLoads) {
    // An operation it lacks is a usage error, found only after the module loaded and passed
    // its checks; nothing of the service is touched.
    VelnorRun run =
        runVelnor({"--plugin", VELNOR_PLUGIN, "call", "noSuchOperation"}, environment());
    EXPECT_EQ(run.exitStatus, 64) << run.err;
    EXPECT_NE(run.err.find("no operation \"noSuchOperation\""), std::string::npos) << run.err;
}

TEST_F(HostEnvironmentTest, DatabaseSocketFolderDefaultsButAnExplicitOneIsKept) {
    VelnorRun unset = velnor({"--json", "call", "environmentWithRequest"});
    EXPECT_EQ(unset.out, "{\n  \"PGHOST\": \"/var/pgsql_socket\"\n}\n") << unset.err;

    EnvironmentChanges changes = environment();
    changes["PGHOST"] = "/tmp/elsewhere";
    VelnorRun set =
        runVelnor(withTestPlugin({"--json", "call", "environmentWithRequest"}), changes);
    EXPECT_EQ(set.out, "{\n  \"PGHOST\": \"/tmp/elsewhere\"\n}\n") << set.err;
}

TEST_F(HostEnvironmentTest, PluginLogMessagesAppearOnStandardError) {
    const char* request = R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict><key>message</key><string>the sky is falling</string></dict></plist>
)";
    VelnorProcess process(withTestPlugin({"call", "logWithRequest", "-"}), environment(), request);
    VelnorRun run = process.finish();
    EXPECT_EQ(run.exitStatus, 0) << run.err;
    std::string expected =
        "velnor[" + std::to_string(process.pid()) + "]: velnor_test_plugin: the sky is falling\n";
    EXPECT_NE(run.err.find(expected), std::string::npos)
        << "expected \"" << expected << "\" in: " << run.err;
    EXPECT_NE(run.err.find("velnor_test_plugin: initialize"), std::string::npos)
        << "the log must be open before the plug-in's class hook runs: " << run.err;
}

}  // namespace
}  // namespace velnor::testing
