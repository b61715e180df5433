// The initial setup: choose the data folder, create it and give it to the service account (or,
// on upgrade, keep the existing one), then write the default launch arguments for it.
#include <algorithm>
#include <cctype>

#include "config/LaunchArgumentCodec.h"
#include "handler/Constants.h"
#include "handler/Log.h"
#include "handler/PostgresRequestHandler.h"
#include "handler/RequestError.h"
#include "platform/FileSystem.h"
#include "platform/HostLibrary.h"

namespace velnor::postgres {
namespace {

constexpr char kCommandName[] = "initialSetup";
constexpr mode_t kDataFolderPermissions = 0700;

std::string lowercase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// "upgrade": a boolean as it is, absent as false, an integer as true unless 0, and the strings
// true/yes/1 and false/no/0 in any letter case. Anything else is refused.
bool asksForUpgrade(const PlistDictionary& request) {
    const PlistValue* upgrade = request.find("upgrade");
    if (!upgrade || upgrade->isAbsent()) {
        return false;
    }
    if (const auto flag = upgrade->asBoolean()) {
        return *flag;
    }
    if (const auto number = upgrade->asInteger()) {
        return *number != 0;
    }
    if (const auto* text = upgrade->asString()) {
        const std::string word = lowercase(*text);
        if (word == "true" || word == "yes" || word == "1")
            return true;
        if (word == "false" || word == "no" || word == "0")
            return false;
        throw RequestError(
            "\"upgrade\" must be a boolean, or one of true, yes, 1, false, no, 0; "
            "not \"" +
            *text + "\"");
    }
    throw RequestError(std::string("\"upgrade\" must be a boolean, not a ") +
                       kindName(upgrade->kind()));
}

std::optional<std::string> requestedDataLocation(const PlistDictionary& request) {
    const PlistValue* location = request.find("dataLocation");
    requireKindOrAbsent(location, PlistValue::Kind::String, "\"dataLocation\"");
    return location && location->asString() ? std::optional(*location->asString()) : std::nullopt;
}

std::string existingDataFolder(PostgresRequestHandler& handler) {
    const PlistDictionary settings = handler.readSettingsWithRequest({});
    const PlistValue* configuration = settings.find("configuration");
    const PlistValue* dataFolder =
        configuration ? configuration->asDictionary()->find(kDataDirKey) : nullptr;
    if (dataFolder && dataFolder->asString()) {
        return *dataFolder->asString();
    }
    logMessage(LOG_WARNING, "Couldn't get dataDir from existing settings, using default");
    return kPostgresDefaultDataDir;
}

// Creates the folder with its parents and gives it to the service account. The file system's
// description of a failure, if any.
std::optional<std::string> prepareDataFolder(const std::string& folder) {
    const auto created = platform::createDirectory(folder, std::nullopt);
    if (!created) {
        logMessage(LOG_ERR, "Error trying to create dataLocation folder %s: %s", folder.c_str(),
                   created.message().c_str());
        return created.message();
    }
    // Logged for a folder that was there already, too.
    logMessage(LOG_NOTICE, "Created dataLocation folder %s", folder.c_str());
    const auto secured = platform::setAttributes(
        folder, {kDataFolderPermissions, kPostgresAccount, kPostgresAccount});
    if (!secured) {
        // The reason reaches only the response; the message names the folder alone.
        logMessage(LOG_ERR, "Error trying to set attributes of dataLocation folder %s",
                   folder.c_str());
        return secured.message();
    }
    return std::nullopt;
}

}  // namespace

PlistDictionary PostgresRequestHandler::initialSetupWithRequest(const PlistDictionary& request) {
    const bool upgrade = asksForUpgrade(request);
    const auto location = upgrade ? std::nullopt : requestedDataLocation(request);

    std::string dataFolder = kPostgresDefaultDataDir;
    std::optional<std::string> error;
    if (upgrade) {
        dataFolder = existingDataFolder(*this);
    } else if (location) {
        dataFolder = *location;
        error = prepareDataFolder(dataFolder);
    }
    // Written in every case, after a failure too: the job file then names the folder asked for.
    platform::setLaunchDaemonServiceConfigArgs(kPostgresJobPlistPath, defaultArguments(dataFolder));

    if (error) {
        return {{"error", PlistValue(*error)}};
    }
    return {{"command", PlistValue(kCommandName)},
            {"configuration", PlistDictionary{{"dataLocation", PlistValue(dataFolder)}}},
            {"status", PlistValue::integer(0)}};
}

}  // namespace velnor::postgres
