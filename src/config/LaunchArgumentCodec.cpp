#include "config/LaunchArgumentCodec.h"

#include <stdexcept>

#include "handler/Constants.h"

namespace velnor::postgres {
namespace {

constexpr std::size_t kDataDirFlagPosition = 1;
constexpr std::size_t kDataFolderPosition = 2;

void storeSetting(PlistDictionary& settings, Setting setting) {
    settings.set(std::move(setting.key), PlistValue(std::move(setting.value)));
}

// Inserts at position the way the vector's owner would index it: past the end is a range
// error, and an absent element cannot be inserted at all.
void insertAt(LaunchArguments& arguments, std::size_t position,
              const std::optional<std::string>& element) {
    if (position > arguments.size()) {
        throw std::out_of_range("cannot insert a launch argument at position " +
                                std::to_string(position) + " of a vector of " +
                                std::to_string(arguments.size()));
    }
    if (!element) {
        throw std::invalid_argument("cannot insert an absent data folder into launch arguments");
    }
    arguments.insert(arguments.begin() + static_cast<std::ptrdiff_t>(position), *element);
}

}  // namespace

std::optional<Setting> splitSetting(std::string_view element) {
    const auto equals = element.find('=');
    if (equals == std::string_view::npos ||
        element.find('=', equals + 1) != std::string_view::npos) {
        return std::nullopt;
    }
    return Setting{std::string(element.substr(0, equals)), std::string(element.substr(equals + 1))};
}

PlistDictionary scanSettings(const OptionalArguments& arguments) {
    PlistDictionary settings;
    if (!arguments) {
        return settings;
    }
    for (const auto& element : *arguments) {
        if (auto setting = splitSetting(element)) {
            storeSetting(settings, std::move(*setting));
        }
    }
    return settings;
}

std::optional<std::string> lookUpDataFolder(const OptionalArguments& arguments) {
    if (!arguments) {
        return std::nullopt;
    }
    for (std::size_t position = 0; position < arguments->size(); ++position) {
        if ((*arguments)[position] == kDataDirFlag) {
            return arguments->at(position + 1);
        }
    }
    throw std::out_of_range("launch arguments hold no \"-D\" followed by a data folder");
}

PlistDictionary scanSettingsAndDataFolder(const OptionalArguments& arguments) {
    PlistDictionary settings;
    if (!arguments) {
        return settings;
    }
    bool folderFollows = false;
    for (const auto& element : *arguments) {
        if (auto setting = splitSetting(element)) {
            // A setting between "-D" and the folder neither clears the flag nor is the folder.
            storeSetting(settings, std::move(*setting));
        } else if (element == kDataDirFlag) {
            folderFollows = true;
        } else if (folderFollows) {
            settings.set(kDataDirKey, PlistValue(element));
            folderFollows = false;
        }
    }
    return settings;
}

std::optional<std::string> dataFolderSlot(const OptionalArguments& arguments) {
    if (!arguments) {
        return std::nullopt;
    }
    return arguments->at(kDataFolderPosition);
}

std::string settingValueText(const PlistValue& value) {
    if (const auto* text = value.asString()) {
        return *text;
    }
    if (const auto number = value.asInteger()) {
        return std::to_string(*number);
    }
    throw std::invalid_argument(
        std::string("a setting's value must be a string or an integer, not ") +
        kindName(value.kind()));
}

LaunchArguments composeArguments(const OptionalArguments& stored, const PlistDictionary& settings) {
    LaunchArguments composed;
    if (stored) {
        composed.push_back(stored->at(0));
    }
    bool folderPlaced = false;
    // The dictionary iterates in ascending byte order of its keys.
    for (const auto& [key, value] : settings) {
        if (key == kDataDirKey) {
            // Keys that sort before "dataDir" were appended already: the folder still goes in
            // front of them.
            insertAt(composed, kDataDirFlagPosition, kDataDirFlag);
            insertAt(composed, kDataFolderPosition, settingValueText(value));
            folderPlaced = true;
        } else {
            composed.push_back(kSettingFlag);
            composed.push_back(key + "=" + settingValueText(value));
        }
    }
    if (!folderPlaced) {
        insertAt(composed, kDataDirFlagPosition, kDataDirFlag);
        insertAt(composed, kDataFolderPosition, dataFolderSlot(stored));
    }
    return composed;
}

LaunchArguments defaultArguments(const std::string& dataFolder) {
    return {
        kPostgresExecutable,
        kDataDirFlag,
        dataFolder,
        kSettingFlag,
        "listen_addresses=",
        kSettingFlag,
        "log_connections=on",
        kSettingFlag,
        kLogDirectorySetting,
        kSettingFlag,
        std::string("log_filename=") + kDefaultLogFileName,
        kSettingFlag,
        "log_lock_waits=on",
        kSettingFlag,
        "log_statement=ddl",
        kSettingFlag,
        "log_line_prefix=%t ",
        kSettingFlag,
        "logging_collector=on",
        kSettingFlag,
        std::string("unix_socket_directory=") + kPostgresSocketDir,
        kSettingFlag,
        std::string("unix_socket_group=") + kPostgresAccount,
        kSettingFlag,
        "unix_socket_permissions=0770",
    };
}

}  // namespace velnor::postgres
