#include "SettingsPlan.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "DescriptorIo.h"
#include "SafePath.h"

namespace velnor::host {

using support::Result;

std::string sha256Hex(std::string_view bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned int index = 0; index < length; ++index) {
        hex += kDigits[digest[index] >> 4];
        hex += kDigits[digest[index] & 0xf];
    }
    return hex;
}

bool isJobFileVersion(std::string_view text) {
    return text.size() == 64 && std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
           });
}

Result<std::string> jobFileVersion(const std::string& jobFile) {
    std::string untrusted;
    Result<support::UniqueFd> opened = support::openSafely(jobFile, &untrusted);
    if (!opened) {
        return opened.failure();
    }
    struct stat status;
    if (!untrusted.empty() || fstat(opened->get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return support::couldNot("use", jobFile,
                                 untrusted.empty() ? "it is not a regular file" : untrusted, EPERM);
    }
    Result<support::UniqueFd> file = support::reopen(opened->get(), O_RDONLY | O_CLOEXEC, jobFile);
    if (!file) {
        return file.failure();
    }
    std::string bytes;
    if (!support::readAll(file->get(), bytes)) {
        return support::couldNot("read", jobFile, errno);
    }
    return sha256Hex(bytes);
}

SettingPlan planSetting(const std::optional<std::string>& stored,
                        const std::optional<SettingVerdict>& storedVerdict,
                        const SettingVerdict& wanted) {
    SettingPlan plan{wanted.name,       stored, wanted.value, std::nullopt, wanted.accepted,
                     wanted.serverSays, false};
    if (storedVerdict && storedVerdict->accepted) {
        plan.storedReads = storedVerdict->serverSays;
    }
    plan.differs = wanted.accepted && (!plan.storedReads || *plan.storedReads != wanted.serverSays);
    return plan;
}

Result<std::vector<SettingPlan>> planSettings(
    const ServerProgram& server, const PlistDictionary& stored,
    const std::vector<std::pair<std::string, std::string>>& settings) {
    std::vector<SettingPlan> plans;
    for (const auto& [name, value] : settings) {
        Result<SettingVerdict> wanted = checkSetting(server, name, value);
        if (!wanted) {
            return wanted.failure();
        }
        const PlistValue* entry = stored.find(name);
        std::optional<std::string> storedValue;
        std::optional<SettingVerdict> storedVerdict;
        if (entry != nullptr && entry->asString() != nullptr) {
            storedValue = *entry->asString();
            // A stored value that cannot even be asked about (a line feed in it) is one the
            // server could not read either: any accepted new value replaces it.
            if (Result<SettingVerdict> verdict = checkSetting(server, name, *storedValue)) {
                storedVerdict = std::move(*verdict);
            }
        }
        plans.push_back(planSetting(storedValue, storedVerdict, *wanted));
    }
    return plans;
}

ApplyDecision decideApply(const std::vector<SettingPlan>& plan, const std::string& version,
                          const std::optional<std::string>& expected) {
    if (expected && *expected != version) {
        return ApplyDecision::VersionChanged;
    }
    auto refused = [](const SettingPlan& setting) { return !setting.accepted; };
    if (std::any_of(plan.begin(), plan.end(), refused)) {
        return ApplyDecision::Refused;
    }
    auto differs = [](const SettingPlan& setting) { return setting.differs; };
    return std::any_of(plan.begin(), plan.end(), differs) ? ApplyDecision::Write
                                                          : ApplyDecision::NothingDiffers;
}

PlistDictionary settingsToWrite(const std::vector<SettingPlan>& plan) {
    PlistDictionary settings;
    for (const SettingPlan& setting : plan) {
        if (setting.differs) {
            settings.set(setting.name, PlistValue(setting.value));
        }
    }
    return settings;
}

}  // namespace velnor::host
