// `velnor call`: how each kind of answer is printed and how the run ends.
#include "HostFixture.h"
#include "PropertyListFile.h"

namespace velnor::testing {
namespace {

class HostCallTest : public HostFixture {};

TEST_F(HostCallTest, ResponseAsXmlKeepsIntegerZeroApartFromFalse) {
    VelnorRun run = velnor({"call", "typesWithRequest"});
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    EXPECT_NE(run.out.find("<integer>0</integer>"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("<false/>"), std::string::npos) << run.out;

    std::string error;
    std::optional<PlistValue> printed = parsePropertyList(run.out, &error);
    ASSERT_TRUE(printed.has_value()) << "stdout is no property list: " << error << "\n" << run.out;
    const PlistDictionary* response = printed->asDictionary();
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(*response->find("zero"), PlistValue::integer(0));
    EXPECT_EQ(*response->find("no"), PlistValue::boolean(false));
    EXPECT_EQ(*response->find("text"), PlistValue("Grüße \"quoted\"\n"));
}

TEST_F(HostCallTest, ResponseAsJsonKeepsIntegerZeroApartFromFalse) {
    VelnorRun run = velnor({"--json", "call", "typesWithRequest"});
    ASSERT_EQ(run.exitStatus, 0) << run.err;
    EXPECT_EQ(run.out,
              "{\n"
              "  \"list\": [\n"
              "    1,\n"
              "    \"two\"\n"
              "  ],\n"
              "  \"no\": false,\n"
              "  \"text\": \"Grüße \\\"quoted\\\"\\n\",\n"
              "  \"zero\": 0\n"
              "}\n");
}

TEST_F(HostCallTest, ErrorResponseIsPrintedAndExitsOne) {
    VelnorRun request = velnor({"call", "errorWithRequest"});
    EXPECT_EQ(request.exitStatus, 1) << request.err;
    EXPECT_NE(request.out.find("<string>TEST_PLUGIN_ERR</string>"), std::string::npos)
        << request.out;

    VelnorRun service = velnor({"--json", "call", "startServiceWithVariant", "fail"});
    EXPECT_EQ(service.exitStatus, 1) << service.err;
    EXPECT_EQ(service.out, "{\n  \"error\": \"CANNOT_START_SERVICE_ERR\"\n}\n");
}

TEST_F(HostCallTest, AbsentResponsePrintsNothingAndExitsZero) {
    VelnorRun run = velnor({"call", "stopServiceWithVariant"});
    EXPECT_EQ(run.exitStatus, 0) << run.err;
    EXPECT_EQ(run.out, "");
    EXPECT_NE(run.err.find("stopServiceWithVariant variant=(absent)"), std::string::npos)
        << "no argument must reach the plug-in as no variant: " << run.err;

    VelnorRun json = velnor({"--json", "call", "stopServiceWithVariant", "skipDependenciesChecks"});
    EXPECT_EQ(json.exitStatus, 0) << json.err;
    EXPECT_EQ(json.out, "null\n");
    EXPECT_NE(json.err.find("variant=skipDependenciesChecks"), std::string::npos) << json.err;
}

TEST_F(HostCallTest, OperationThatThrowsEndsWithoutResponse) {
    VelnorRun run = velnor({"call", "throwWithRequest"});
    EXPECT_EQ(run.exitStatus, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_NE(run.err.find("velnor: throwWithRequest ended without a response: "
                           "std::out_of_range: no element 3"),
              std::string::npos)
        << run.err;
}

TEST_F(HostCallTest, IdleCountIsPassedAndItsResultPrinted) {
    VelnorRun byDefault = velnor({"call", "doIdleAtCount"});
    EXPECT_EQ(byDefault.exitStatus, 0) << byDefault.err;
    EXPECT_NE(byDefault.out.find("<integer>0</integer>"), std::string::npos) << byDefault.out;

    VelnorRun counted = velnor({"--json", "call", "doIdleAtCount", "-7"});
    EXPECT_EQ(counted.exitStatus, 0) << counted.err;
    EXPECT_EQ(counted.out, "-7\n");

    VelnorRun tooBig = velnor({"call", "doIdleAtCount", "2147483648"});
    EXPECT_EQ(tooBig.exitStatus, 64);
    EXPECT_NE(tooBig.err.find("usage:"), std::string::npos) << tooBig.err;
    EXPECT_EQ(tooBig.err.find("doIdleAtCount called"), std::string::npos)
        << "the plug-in must not be called with a bad count";
}

TEST_F(HostCallTest, BadUsageExitsSixtyFourWithTheUsage) {
    for (const auto& arguments :
         {std::vector<std::string>{"call", "noSuchOperation"},
          std::vector<std::string>{"call", "getstatewithrequest"},
          std::vector<std::string>{"status", "--everything"},
          std::vector<std::string>{"settings", "port"}, std::vector<std::string>{}}) {
        VelnorRun run = velnor(arguments);
        EXPECT_EQ(run.exitStatus, 64) << run.err;
        EXPECT_NE(run.err.find("usage: velnor"), std::string::npos) << run.err;
        EXPECT_EQ(run.out, "");
    }
}

}  // namespace
}  // namespace velnor::testing
