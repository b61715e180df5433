#include "SettingsApply.h"

#include <cerrno>

#include "ExitStatus.h"
#include "Explanations.h"
#include "Output.h"
#include "ServiceFacts.h"
#include "SettingsPlan.h"
#include "Terminal.h"

namespace velnor::host {
namespace {

// What the plan was made from, and what it found.
struct PlanMade {
    std::string version;
    std::vector<SettingPlan> settings;
    bool serviceRuns = false;
    std::vector<ClientTitle> clients;
};

PlistValue settingValue(const SettingPlan& setting) {
    PlistDictionary value{{"name", PlistValue(setting.name)}};
    // A dictionary holds no absent value: a setting that the job file lacks has no "stored".
    if (setting.stored) {
        value.set("stored", PlistValue(*setting.stored));
    }
    value.set("value", PlistValue(setting.value));
    if (setting.storedReads) {
        value.set("storedReads", PlistValue(*setting.storedReads));
    }
    value.set("accepted", PlistValue::boolean(setting.accepted));
    value.set("serverSays", PlistValue(setting.serverSays));
    value.set("differs", PlistValue::boolean(setting.differs));
    return value;
}

// A client of the running server: a stop ends it when it is idle, and waits for it otherwise.
PlistValue clientValue(const ClientTitle& client) {
    return PlistDictionary{{"pid", PlistValue::integer(client.pid)},
                           {"user", PlistValue(client.user)},
                           {"database", PlistValue(client.database)},
                           {"state", PlistValue(client.state)},
                           {"ended", PlistValue::boolean(client.state == "idle")}};
}

bool anyDiffers(const std::vector<SettingPlan>& settings) {
    for (const SettingPlan& setting : settings) {
        if (setting.differs) {
            return true;
        }
    }
    return false;
}

PlistDictionary planObject(const PlanMade& plan) {
    PlistArray settings;
    for (const SettingPlan& setting : plan.settings) {
        settings.push_back(settingValue(setting));
    }
    PlistArray clients;
    for (const ClientTitle& client : plan.clients) {
        clients.push_back(clientValue(client));
    }
    return PlistDictionary{
        {"version", PlistValue(plan.version)},
        {"settings", PlistValue(std::move(settings))},
        {"restart", PlistValue::boolean(plan.serviceRuns && anyDiffers(plan.settings))},
        {"clients", PlistValue(std::move(clients))}};
}

std::string settingLine(const SettingPlan& setting) {
    std::string line =
        setting.name + ": " + setting.stored.value_or("(not set)") + " -> " + setting.value + ": ";
    if (!setting.accepted) {
        return line + "refused: " + setting.serverSays + "\n";
    }
    if (!setting.differs) {
        return line + "no change, the server reads " + setting.serverSays + " either way\n";
    }
    if (!setting.stored) {
        return line + "added, the server reads " + setting.serverSays + "\n";
    }
    if (!setting.storedReads) {
        return line + "the server refuses the stored value, and reads " + setting.serverSays + "\n";
    }
    return line + "the server reads " + *setting.storedReads + ", then " + setting.serverSays +
           "\n";
}

std::string planText(const PlanMade& plan) {
    std::string text = "version: " + plan.version + "\n";
    for (const SettingPlan& setting : plan.settings) {
        text += settingLine(setting);
    }
    if (!plan.serviceRuns || !anyDiffers(plan.settings)) {
        return text;
    }
    text += "applying it restarts the service";
    if (plan.clients.empty()) {
        return text + "; no client is connected\n";
    }
    text += "; its clients are ended when idle, and hold the restart otherwise:\n";
    for (const ClientTitle& client : plan.clients) {
        text += "  pid " + std::to_string(client.pid) + "  database " + client.database +
                "  user " + client.user + "  " + client.state + "\n";
    }
    return text;
}

// The plan, printed; false when it could not be written out.
bool printPlan(const Command& command, const PlanMade& plan, std::optional<bool> changed) {
    if (command.quiet && !command.json) {
        return true;
    }
    if (!command.json) {
        std::string text = planText(plan);
        if (changed) {
            text += *changed ? "changed: written, and a running service restarted\n"
                             : "changed: nothing\n";
        }
        return terminal().toOut(text);
    }
    PlistDictionary object = planObject(plan);
    if (changed) {
        object.set("changed", PlistValue::boolean(*changed));
    }
    return terminal().toOut(formatResponse(PlistValue(std::move(object)), OutputForm::Json));
}

int printed(const Command& command, const PlanMade& plan, std::optional<bool> changed, int status) {
    if (!printPlan(command, plan, changed)) {
        complain(support::couldNot("write the plan to", "standard output", errno).message);
        return kExitOutputFailed;
    }
    return status;
}

// The settings that the job file holds, as the plug-in reads them; nothing, with the exit
// status in status and the reason told, when it could not.
std::optional<PlistDictionary> storedSettings(const Call& call, int* status) {
    support::Result<Outcome> read = call("readSettingsWithRequest", PlistDictionary(), {});
    if (!read) {
        *status = tellRefusedCall(read.failure());
        return std::nullopt;
    }
    const PlistDictionary* response = read->result.asDictionary();
    const PlistValue* configuration =
        response != nullptr ? response->find("configuration") : nullptr;
    if (exitStatusFor(*read) != kExitNormal || configuration == nullptr ||
        configuration->asDictionary() == nullptr) {
        complain("could not read the settings: " +
                 (read->answered ? toJson(read->result) : read->failure));
        *status = read->answered ? kExitErrorResponse : kExitWithoutResponse;
        return std::nullopt;
    }
    return *configuration->asDictionary();
}

// The plan of the command's settings; nothing, with the exit status in status and the reason
// told, when it could not be made. The version is taken before the settings are read, so that
// a change in between makes the version stale rather than the plan wrong.
std::optional<PlanMade> makePlan(const Command& command, const Call& call, int* status) {
    PlanMade plan;
    support::Result<std::string> version = jobFileVersion(kServiceJobFile);
    if (!version) {
        complain(version.message());
        *status = kExitUnavailable;
        return std::nullopt;
    }
    plan.version = *version;
    std::optional<PlistDictionary> stored = storedSettings(call, status);
    if (!stored) {
        return std::nullopt;
    }
    support::Result<ServerProgram> server = serverProgramOfJob(kServiceJobFile);
    support::Result<std::vector<SettingPlan>> settings =
        server ? planSettings(*server, *stored, command.settingsChange->settings)
               : support::Result<std::vector<SettingPlan>>(server.failure());
    if (!settings) {
        complain(settings.message());
        *status = settings.error() == EINVAL ? kExitUsage : kExitUnavailable;
        return std::nullopt;
    }
    plan.settings = std::move(*settings);
    plan.serviceRuns = serviceRuns(call);
    if (plan.serviceRuns) {
        plan.clients = serverClients();
    }
    return plan;
}

void tellRefusals(const PlanMade& plan) {
    for (const SettingPlan& setting : plan.settings) {
        if (!setting.accepted) {
            complain(support::couldNot("apply", setting.name + "=" + setting.value,
                                       "the server refuses it: " + setting.serverSays)
                         .message);
        }
    }
}

support::Failure versionChanged(const std::string& now, const std::string& expected) {
    return support::couldNot(
        "apply the settings to", kServiceJobFile,
        "the job file changed since its version " + expected + " was read; it is now " + now,
        ESTALE);
}

// The job file still the version that the plan was made from; run under the host lock, just
// before the write.
support::Status stillVersion(const std::string& expected) {
    support::Result<std::string> now = jobFileVersion(kServiceJobFile);
    if (!now) {
        return now.failure();
    }
    if (*now != expected) {
        return versionChanged(*now, expected);
    }
    return {};
}

// The plan's answer names the job file as it is now, after a write or another's: the version to
// plan from next. Kept as it was when the file cannot be read again.
void takeVersionNow(PlanMade& plan) {
    if (support::Result<std::string> now = jobFileVersion(kServiceJobFile)) {
        plan.version = *now;
    }
}

// The trail's old -> new for each setting the apply writes.
std::vector<SettingChange> changesOf(const std::vector<SettingPlan>& settings) {
    std::vector<SettingChange> changes;
    for (const SettingPlan& setting : settings) {
        if (setting.differs) {
            changes.push_back(SettingChange{setting.name, setting.stored, setting.value});
        }
    }
    return changes;
}

// Writes the settings that differ, and the plug-in restarts a running service. Only a write is
// recorded: an apply that finds nothing to change changes nothing.
int writeDiffering(const Command& command, PlanMade& plan, const Call& call, ChangeRecord* record) {
    const std::string expected = plan.version;
    PlistDictionary request{{"configuration", PlistValue(settingsToWrite(plan.settings))}};
    if (record != nullptr) {
        record->setChanges(changesOf(plan.settings));
    }
    support::Result<Outcome> written =
        call("writeSettingsWithRequest", request, [&expected] { return stillVersion(expected); });
    finishRecord(record, "writeSettingsWithRequest", written);
    if (!written) {
        if (written.error() == ESTALE) {
            complain(written.message());
            takeVersionNow(plan);
            return printed(command, plan, false, kExitVersionChanged);
        }
        return tellRefusedCall(written.failure());
    }
    if (const int status = exitStatusFor(*written); status != kExitNormal) {
        complain("could not apply the settings: " +
                 (written->answered ? toJson(written->result) : written->failure));
        return status;
    }
    takeVersionNow(plan);
    return printed(command, plan, true, kExitNormal);
}

}  // namespace

int concludeSettingsChange(const Command& command, const Call& call, ChangeRecord* record) {
    int status = kExitNormal;
    std::optional<PlanMade> plan = makePlan(command, call, &status);
    if (!plan) {
        return status;
    }
    const SettingsChange& change = *command.settingsChange;
    if (!change.apply) {
        const bool refused =
            decideApply(plan->settings, plan->version, std::nullopt) == ApplyDecision::Refused;
        return printed(command, *plan, std::nullopt, refused ? kExitErrorResponse : kExitNormal);
    }
    switch (decideApply(plan->settings, plan->version, change.expectedVersion)) {
        case ApplyDecision::VersionChanged:
            complain(versionChanged(plan->version, *change.expectedVersion).message);
            return printed(command, *plan, false, kExitVersionChanged);
        case ApplyDecision::Refused:
            tellRefusals(*plan);
            return printed(command, *plan, false, kExitErrorResponse);
        case ApplyDecision::NothingDiffers:
            return printed(command, *plan, false, kExitNormal);
        case ApplyDecision::Write:
            break;
    }
    return writeDiffering(command, *plan, call, record);
}

}  // namespace velnor::host
