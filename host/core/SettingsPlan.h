// The change plan of `velnor settings --plan` and `--apply`: each setting's stored and new value
// compared as the server program reads them, so that 1GB and 1048576kB are no change, and the
// version of the job file that the plan was made from, so that an apply can refuse a file that
// someone changed since.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "PlistValue.h"
#include "Result.h"
#include "SettingsCheck.h"

namespace velnor::host {

// The SHA-256 of bytes, as 64 lower-case hexadecimal digits.
std::string sha256Hex(std::string_view bytes);

// True when text is a version as jobFileVersion gives it: 64 lower-case hexadecimal digits.
bool isJobFileVersion(std::string_view text);

// The version of the job file at path: the SHA-256 of its bytes, read through the very
// descriptor that was checked to be a regular file of root's alone. Fails, saying why, when it
// is not, or cannot be opened or read.
support::Result<std::string> jobFileVersion(const std::string& jobFile);

// One setting of a plan.
struct SettingPlan {
    std::string name;
    // As the job file holds it; nothing when it holds no such setting.
    std::optional<std::string> stored;
    // The new value, as typed.
    std::string value;
    // How the server reads the stored value; nothing when there is none or the server refuses it.
    std::optional<std::string> storedReads;
    bool accepted = false;
    // How the server reads the new value when it accepts it; else the server's own message.
    std::string serverSays;
    // Applying it changes the job file: the server would read something else, or the job file
    // does not hold the setting yet.
    bool differs = false;
};

// The plan of one setting, from the server's verdict on its new value and on its stored value
// (nothing when the job file holds none, or the server could not be asked about it). A stored
// value that is missing or that the server refuses differs from any accepted new one; a new
// value that the server refuses never differs, since nothing of it is ever written.
SettingPlan planSetting(const std::optional<std::string>& stored,
                        const std::optional<SettingVerdict>& storedVerdict,
                        const SettingVerdict& wanted);

// The plan of every setting, in the order given: the server program asked about each new value
// and each value that stored (the job file's settings) holds for it. Fails as checkSetting
// fails for a new value (EINVAL for a name or value that cannot be asked about).
support::Result<std::vector<SettingPlan>> planSettings(
    const ServerProgram& server, const PlistDictionary& stored,
    const std::vector<std::pair<std::string, std::string>>& settings);

// What an apply does with its plan, in this order of precedence.
enum class ApplyDecision {
    VersionChanged,  // the job file is not the version that was expected: nothing is written
    Refused,         // the server refuses a new value: nothing is written
    NothingDiffers,  // the server reads every value as it stands: no write, no restart
    Write,           // write the settings that differ, and restart a running service
};

// The decision for a plan made from the job file's version; expected is the version the caller
// made its own plan from, if any.
ApplyDecision decideApply(const std::vector<SettingPlan>& plan, const std::string& version,
                          const std::optional<std::string>& expected);

// The settings that an apply writes: those that differ, with their new values.
PlistDictionary settingsToWrite(const std::vector<SettingPlan>& plan);

}  // namespace velnor::host
