// velnor run for real against the test plug-in: how each kind of answer is printed, how the run
// ends, where the request comes from, and what the host sets up around the call.
#include "PropertyListFile.h"
#include "VelnorProcess.h"

namespace velnor::testing {
namespace {

using HostCallTest = HostFixture;

TEST_F(HostCallTest, XmlResponseKeepsIntegerZeroApartFromFalseAndTheLogReachesStandardError) {
    VelnorProcess process({"call", "typesWithRequest"}, environment());
    VelnorRun run = process.finish();
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    EXPECT_NE(run.out.find("<integer>0</integer>"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("<false/>"), std::string::npos) << run.out;
    const PlistDictionary expected{{"zero", PlistValue::integer(0)},
                                   {"no", PlistValue::boolean(false)},
                                   {"text", "Grüße \"quoted\"\n"},
                                   {"PGHOST", "/var/pgsql_socket"}};
    EXPECT_EQ(parsePropertyList(run.out).value(), PlistValue(expected)) << run.out;

    std::string log = "velnor[" + std::to_string(process.pid()) + "]: velnor_test_plugin: ";
    EXPECT_NE(run.err.find(log + "initialize\n"), std::string::npos)
        << "the log must be open before the plug-in's class hook runs: " << run.err;
    EXPECT_NE(run.err.find(log + "called typesWithRequest\n"), std::string::npos) << run.err;
}

TEST_F(HostCallTest, JsonResponseKeepsIntegerZeroApartFromFalse) {
    VelnorRun run = velnor({"--json", "call", "typesWithRequest"});
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    EXPECT_EQ(run.out,
              "{\n  \"PGHOST\": \"/var/pgsql_socket\",\n  \"no\": false,\n"
              "  \"text\": \"Grüße \\\"quoted\\\"\\n\",\n  \"zero\": 0\n}\n")
        << "when PGHOST is not set velnor sets it to the server's socket folder";

    EnvironmentChanges changes = environment();
    changes["PGHOST"] = "/tmp/elsewhere";
    EXPECT_NE(VelnorProcess({"--json", "call", "typesWithRequest"}, changes)
                  .finish()
                  .out.find("\"PGHOST\": \"/tmp/elsewhere\""),
              std::string::npos)
        << "an explicit socket folder must be kept";
}

// The plug-in's operation runs only when the host got that far: never on a bad command line, a
// bad request or a module it must not use.
TEST_F(HostCallTest, EachWayARunEndsHasItsOwnExitStatus) {
    std::string missing = path("missing.plist");
    std::string array = writeFile("array.plist", toXmlPropertyList(PlistValue(PlistArray{"x"})));
    struct Case {
        std::vector<std::string> arguments;
        int status;
        std::string out;
        std::string err;
        bool called;
        std::string input = {};
    };
    const Case cases[] = {
        {{"--json", "call", "stopServiceWithVariant"}, 0, "null\n", "", true},
        {{"--json", "call", "stopServiceWithVariant", "fail"},
         1,
         "{\n  \"error\": \"CANNOT_STOP_SERVICE_ERR\"\n}\n",
         "",
         true},
        {{"call", "throwWithRequest"},
         2,
         "",
         "velnor: throwWithRequest ended without a response: std::out_of_range: no element 3",
         true},
        {{"call", "noSuchOperation"}, 64, "", "usage: velnor", false},
        {{"status", "--everything"}, 64, "", "usage: velnor", false},
        {{"call", "echoWithRequest", missing},
         65,
         "",
         missing + "\": No such file or directory",
         false},
        {{"call", "echoWithRequest", array}, 65, "", array + "\": it holds an array", false},
        {{"call", "echoWithRequest", "-"},
         65,
         "",
         "could not read the request \"standard input\": not a valid",
         false,
         "{\"json\": true}"},
        {{"--plugin", VELNOR_TEST_PLUGIN_OTHER_VERSION, "call", "echoWithRequest"},
         69,
         "",
         "interface version",
         false},
    };
    for (const Case& test : cases) {
        VelnorRun run = velnor(test.arguments, test.input);
        std::string line = test.arguments.back() + " (" + std::to_string(test.status) + "):\n";
        EXPECT_EQ(run.exitStatus, test.status) << line << run.err;
        EXPECT_EQ(run.out, test.out) << line;
        EXPECT_NE(run.err.find(test.err), std::string::npos) << line << run.err;
        EXPECT_EQ(run.err.find("velnor_test_plugin:") != std::string::npos, test.called)
            << line << run.err;
    }
}

TEST_F(HostCallTest, RequestComesFromAFileOrStandardInputButNeverUnasked) {
    const PlistDictionary request{{"upgrade", PlistValue::boolean(false)},
                                  {"count", PlistValue::integer(0)}};
    std::string xml = toXmlPropertyList(PlistValue(request));
    std::string echoed = "{\n  \"count\": 0,\n  \"upgrade\": false\n}\n";
    EXPECT_EQ(velnor({"--json", "call", "echoWithRequest", writeFile("r.plist", xml)}).out, echoed);
    EXPECT_EQ(velnor({"--json", "call", "echoWithRequest", "-"}, xml).out, echoed);
    EXPECT_EQ(velnor({"--json", "call", "echoWithRequest"}, xml).out, "{}\n")
        << "with no argument the request is empty and standard input is not read";
}

}  // namespace
}  // namespace velnor::testing
