#include "ConsoleVerbs.h"

#include <unistd.h>

#include <cerrno>

#include "ConsoleFiles.h"
#include "ExitStatus.h"
#include "Output.h"
#include "SettingsCheck.h"
#include "Terminal.h"

namespace velnor::host {
namespace {

int printWebUrl() {
    support::Result<WebUrl> url = readWebUrl();
    if (!url) {
        complain(url.message() + " (does velnord run with its web console?)");
        return kExitUnavailable;
    }
    // The fingerprint lets the first visit check the certificate that velnord made itself.
    (void)terminal().toOut(url->url + "\n" +
                           (url->fingerprint.empty()
                                ? ""
                                : "certificate SHA-256 fingerprint: " + url->fingerprint + "\n"));
    return kExitNormal;
}

std::string verdictLine(const SettingVerdict& verdict) {
    return verdict.name + "=" + verdict.value + ": " +
           (verdict.accepted ? "accepted; the server reads " : "refused: ") + verdict.serverSays;
}

PlistValue verdictValue(const SettingVerdict& verdict) {
    return PlistDictionary{{"name", PlistValue(verdict.name)},
                           {"value", PlistValue(verdict.value)},
                           {"accepted", PlistValue::boolean(verdict.accepted)},
                           {"serverSays", PlistValue(verdict.serverSays)}};
}

// Exit 0 when the server accepts every setting, 1 when it refuses one; every setting is checked
// first, so nothing runs for a command line with a malformed one.
int checkSettingsCommand(const std::vector<std::string>& settings, bool json) {
    std::vector<std::pair<std::string, std::string>> pairs;
    for (const std::string& setting : settings) {
        support::Result<std::pair<std::string, std::string>> pair = splitSetting(setting);
        if (!pair) {
            complain(pair.message());
            return kExitUsage;
        }
        pairs.push_back(std::move(*pair));
    }
    if (pairs.empty()) {
        complain("settings --check needs at least one NAME=VALUE");
        return kExitUsage;
    }
    support::Result<ServerProgram> server = serverProgramOfJob(kServiceJobFile);
    support::Result<std::vector<SettingVerdict>> verdicts =
        server ? checkSettings(*server, pairs)
               : support::Result<std::vector<SettingVerdict>>(server.failure());
    if (!verdicts) {
        complain(verdicts.message());
        return verdicts.error() == EINVAL ? kExitUsage : kExitUnavailable;
    }
    PlistArray list;
    bool refused = false;
    for (const SettingVerdict& verdict : *verdicts) {
        refused = refused || !verdict.accepted;
        if (json) {
            list.push_back(verdictValue(verdict));
        } else {
            (void)terminal().toOut(verdictLine(verdict) + "\n");
        }
    }
    if (json) {
        (void)terminal().toOut(toJson(PlistValue(std::move(list))) + "\n");
    }
    return refused ? kExitErrorResponse : kExitNormal;
}

}  // namespace

std::optional<int> runConsoleVerb(const Command& command) {
    if (command.verb != "web-url" && !command.settingsToCheck) {
        return std::nullopt;
    }
    // The token hands out the whole console, and the check runs a program as the service
    // account: both are root's.
    if (geteuid() != 0) {
        complain("must be run as root");
        return kExitNotRoot;
    }
    if (command.settingsToCheck) {
        return checkSettingsCommand(*command.settingsToCheck, command.json);
    }
    return printWebUrl();
}

}  // namespace velnor::host
