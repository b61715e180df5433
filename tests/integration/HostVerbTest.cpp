// The friendly verbs: which operation each one runs, with which request or variant, and the
// short human form they print.
#include "HostFixture.h"

namespace velnor::testing {
namespace {

class HostVerbTest : public HostFixture {};

TEST_F(HostVerbTest, StatusAsksForTheStateWithOrWithoutDetails) {
    VelnorRun plain = velnor({"status"});
    EXPECT_EQ(plain.exitStatus, 0) << plain.err;
    EXPECT_EQ(plain.out,
              "initializeCount: 1\n"
              "operation: getStateWithRequest\n"
              "request: {}\n");

    VelnorRun details = velnor({"status", "--details"});
    EXPECT_EQ(details.out,
              "initializeCount: 1\n"
              "operation: getStateWithRequest\n"
              "request:\n"
              "  variant: withDetails\n");
}

TEST_F(HostVerbTest, SettingsReadWithoutArgumentsAndWriteStringsWithThem) {
    EXPECT_EQ(velnor({"settings"}).out,
              "initializeCount: 1\n"
              "operation: readSettingsWithRequest\n"
              "request: {}\n");
    VelnorRun write = velnor({"--json", "settings", "port=5433", "log_line_prefix=%t="});
    EXPECT_EQ(write.exitStatus, 0) << write.err;
    EXPECT_EQ(write.out,
              "{\n"
              "  \"initializeCount\": 1,\n"
              "  \"operation\": \"writeSettingsWithRequest\",\n"
              "  \"request\": {\n"
              "    \"configuration\": {\n"
              "      \"log_line_prefix\": \"%t=\",\n"
              "      \"port\": \"5433\"\n"
              "    }\n"
              "  }\n"
              "}\n");
}

TEST_F(HostVerbTest, ServiceVerbsPassNoVariant) {
    for (auto [verb, operation] : {std::pair{"start", "startServiceWithVariant"},
                                   std::pair{"stop", "stopServiceWithVariant"},
                                   std::pair{"restart", "recycleServiceWithVariant"}}) {
        VelnorRun run = velnor({verb});
        EXPECT_EQ(run.exitStatus, 0) << verb << ": " << run.err;
        EXPECT_EQ(run.out, "") << verb << " answers nothing on success";
        EXPECT_NE(run.err.find(std::string(operation) + " variant=(absent)"), std::string::npos)
            << verb << " did not run " << operation << " without a variant: " << run.err;
    }
}

}  // namespace
}  // namespace velnor::testing
