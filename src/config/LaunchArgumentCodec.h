// The rules that read and compose the job's launch arguments.
//
// The server's whole configuration is the argument vector under ProgramArguments:
//
//   0        the server executable
//   1, 2     "-D" and the data folder
//   3, 5...  "-c"
//   4, 6...  one setting each: key, "=", value (the value may be empty)
//
// When reading, a setting is known by its shape alone, at any position. The rules are pure:
// the calling operation reads and writes the job file itself. An absent vector (a job file that
// cannot be read) scans as empty and yields absent elements when indexed.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "LaunchDaemon.h"
#include "PlistValue.h"

namespace velnor::postgres {

using OptionalArguments = std::optional<LaunchArguments>;

// The key under which a settings dictionary carries the data folder.
inline constexpr char kDataDirKey[] = "dataDir";

struct Setting {
    std::string key;
    std::string value;
};

// Setting split: an element that splits at "=" into exactly two pieces is a setting; either
// piece may be empty. Anything else (no "=", or two or more) is not.
std::optional<Setting> splitSetting(std::string_view element);

// Setting scan: every setting of the vector, the last occurrence of a key winning.
PlistDictionary scanSettings(const OptionalArguments& arguments);

// Data-folder lookup: the element right after the first "-D", whatever it is. Absent for an
// absent vector. Throws std::out_of_range when there is no "-D" or it is the last element:
// there is deliberately no fallback to the default folder.
std::optional<std::string> lookUpDataFolder(const OptionalArguments& arguments);

// Settings scan fused with the data-folder scan: the settings, plus under "dataDir" the first
// element after a "-D" that is neither a setting nor another "-D" (the last such folder
// winning). Never fails; no "dataDir" when no element qualifies.
PlistDictionary scanSettingsAndDataFolder(const OptionalArguments& arguments);

// Data-folder slot: the element at position 2, taken by position alone. Absent for an absent
// vector; throws std::out_of_range when the vector has fewer than three elements.
std::optional<std::string> dataFolderSlot(const OptionalArguments& arguments);

// The text a setting's value is written with: a string as it stands, an integer in decimal.
// Throws std::invalid_argument for any other kind.
std::string settingValueText(const PlistValue& value);

// Vector composition: element 0 of the stored vector, "-D" and the folder ("dataDir" of the
// settings, else the stored vector's data-folder slot), then "-c" and key=value for every other
// setting in ascending byte order of keys. Everything else of the stored vector is dropped.
// Throws std::out_of_range when "-D" cannot be placed at position 1 or the slot is out of range,
// and std::invalid_argument when the folder is absent or a value has no text form.
LaunchArguments composeArguments(const OptionalArguments& stored, const PlistDictionary& settings);

// Default vector: the 25 elements that the initial setup writes for the data folder, in their
// deliberate, unsorted order.
LaunchArguments defaultArguments(const std::string& dataFolder);

}  // namespace velnor::postgres
