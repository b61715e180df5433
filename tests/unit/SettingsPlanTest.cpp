// The change plan: how a setting's stored and new value compare as the server reads them, what
// an apply decides from the plan, the job file's version, and how the command line asks for it.
#include <gtest/gtest.h>

#include "CommandLine.h"
#include "SettingsPlan.h"

namespace velnor::host {
namespace {

const std::string kVersion(64, 'a');
const std::string kOtherVersion(64, 'b');

SettingVerdict accepted(const std::string& value, const std::string& reads) {
    return SettingVerdict{"work_mem", value, true, reads};
}

SettingVerdict refused(const std::string& value) {
    return SettingVerdict{"work_mem", value, false, "FATAL:  invalid value for parameter"};
}

TEST(SettingsPlan, ComparesWhatTheServerReadsNotWhatWasTyped) {
    struct Row {
        const char* what;
        std::optional<std::string> stored;
        std::optional<SettingVerdict> storedVerdict;
        SettingVerdict wanted;
        bool differs;
        std::optional<std::string> storedReads;
    };
    const Row rows[] = {
        {"1GB and 1048576kB are one setting", "1GB", accepted("1GB", "1048576"),
         accepted("1048576kB", "1048576"), false, "1048576"},
        {"another reading is a change", "4MB", accepted("4MB", "4096"), accepted("8MB", "8192"),
         true, "4096"},
        {"a setting the job file lacks is added", std::nullopt, std::nullopt,
         accepted("4MB", "4096"), true, std::nullopt},
        {"a stored value the server refuses is replaced", "lots", refused("lots"),
         accepted("4MB", "4096"), true, std::nullopt},
        {"a stored value that could not be asked about is replaced", "a\nb", std::nullopt,
         accepted("4MB", "4096"), true, std::nullopt},
        {"a refused new value is never a change", "4MB", accepted("4MB", "4096"), refused("lots"),
         false, "4096"},
    };
    for (const Row& row : rows) {
        const SettingPlan plan = planSetting(row.stored, row.storedVerdict, row.wanted);
        EXPECT_EQ(plan.differs, row.differs) << row.what;
        EXPECT_EQ(plan.storedReads, row.storedReads) << row.what;
        EXPECT_EQ(plan.stored, row.stored) << row.what;
        EXPECT_EQ(plan.accepted, row.wanted.accepted) << row.what;
        EXPECT_EQ(plan.serverSays, row.wanted.serverSays) << row.what;
    }
}

SettingPlan setting(const char* name, bool accepted, bool differs) {
    return SettingPlan{name, "old", "new", "old", accepted, "reads", differs};
}

TEST(SettingsApply, WritesOnlyWhatDiffersAndNothingWhenOneIsRefused) {
    struct Row {
        const char* what;
        std::vector<SettingPlan> plan;
        std::optional<std::string> expected;
        ApplyDecision decision;
    };
    const Row rows[] = {
        {"nothing differs: no write, no restart",
         {setting("a", true, false), setting("b", true, false)},
         std::nullopt,
         ApplyDecision::NothingDiffers},
        {"one differs",
         {setting("a", true, false), setting("b", true, true)},
         std::nullopt,
         ApplyDecision::Write},
        {"the plan's version still holds",
         {setting("a", true, true)},
         kVersion,
         ApplyDecision::Write},
        {"one refused: nothing is written",
         {setting("a", true, true), setting("b", false, false)},
         std::nullopt,
         ApplyDecision::Refused},
        {"another version: refused before anything else",
         {setting("a", false, false)},
         kOtherVersion,
         ApplyDecision::VersionChanged},
        {"another version, even when nothing differs",
         {setting("a", true, false)},
         kOtherVersion,
         ApplyDecision::VersionChanged},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(decideApply(row.plan, kVersion, row.expected), row.decision) << row.what;
    }
    EXPECT_EQ(settingsToWrite(
                  {setting("a", true, false), setting("b", true, true), setting("c", true, true)}),
              (PlistDictionary{{"b", "new"}, {"c", "new"}}));
}

}  // namespace
}  // namespace velnor::host
