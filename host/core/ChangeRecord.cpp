#include "ChangeRecord.h"

#include <cerrno>

#include "ExitStatus.h"
#include "Output.h"
#include "ServiceFacts.h"
#include "Terminal.h"

namespace velnor::host {
namespace {

constexpr std::string_view kChangingOperations[] = {
    "startServiceWithVariant",  "stopServiceWithVariant",  "recycleServiceWithVariant",
    "writeSettingsWithRequest", "initialSetupWithRequest", "doIdleAtCount"};

const PlistDictionary* dictionaryAt(const PlistValue& value, std::string_view key) {
    const PlistDictionary* dictionary = value.asDictionary();
    const PlistValue* entry = dictionary != nullptr ? dictionary->find(key) : nullptr;
    return entry != nullptr ? entry->asDictionary() : nullptr;
}

std::string settingText(const PlistValue& value) {
    return value.asString() != nullptr ? *value.asString() : toJsonLine(value);
}

// What came of the last operation, into the record.
void noteOutcome(AuditRecord& record, const support::Result<Outcome>& outcome) {
    if (!outcome) {
        record.outcome = AuditOutcome::NotRun;
        record.words = outcome.message();
    } else if (!outcome->answered) {
        record.outcome = AuditOutcome::Exception;
        record.words = outcome->failure;
    } else if (exitStatusFor(*outcome) == kExitErrorResponse) {
        const PlistValue* error = outcome->result.asDictionary()->find("error");
        record.outcome = AuditOutcome::Error;
        record.code = error->asString() != nullptr ? *error->asString() : toJsonLine(*error);
        record.words = std::string(errorWords(record.code).value_or(""));
    } else {
        record.outcome = AuditOutcome::Done;
    }
}

}  // namespace

bool changesService(std::string_view operation) {
    for (std::string_view changing : kChangingOperations) {
        if (operation == changing) {
            return true;
        }
    }
    return false;
}

PlistValue recordedArgument(const OperationArgument& argument) {
    if (const PlistDictionary* request = std::get_if<PlistDictionary>(&argument)) {
        return PlistValue(*request);
    }
    if (const PlistValue* variant = std::get_if<PlistValue>(&argument)) {
        return *variant;
    }
    if (const std::int32_t* count = std::get_if<std::int32_t>(&argument)) {
        return PlistValue::integer(*count);
    }
    return PlistValue();
}

std::vector<SettingChange> settingChanges(const PlistValue& readResponse,
                                          const PlistDictionary& writeRequest) {
    const PlistDictionary* stored = dictionaryAt(readResponse, "configuration");
    const PlistValue* configuration = writeRequest.find("configuration");
    const PlistDictionary* asked = configuration ? configuration->asDictionary() : nullptr;
    std::vector<SettingChange> changes;
    for (const auto& [key, value] : asked ? *asked : PlistDictionary()) {
        const PlistValue* before = stored != nullptr ? stored->find(key) : nullptr;
        SettingChange change{key, std::nullopt, settingText(value)};
        if (before != nullptr) {
            change.before = settingText(*before);
        }
        if (change.before != change.after) {
            changes.push_back(std::move(change));
        }
    }
    return changes;
}

ChangeRecord::ChangeRecord(const Caller& caller, std::string verb, PlistValue argument,
                           AuditTrail trail)
    : trail_(std::move(trail)), began_(std::chrono::steady_clock::now()) {
    record_.time = std::chrono::system_clock::now();
    record_.caller = caller;
    record_.verb = std::move(verb);
    record_.argument = std::move(argument);
}

support::Status ChangeRecord::admit() const {
    if (record_.caller.isRoot()) {
        return {};
    }
    support::Status writable = trail_.checkWritable();
    if (!writable) {
        return support::Failure{writable.error(),
                                "the change cannot be recorded, so it was not "
                                "made: " +
                                    writable.message()};
    }
    return {};
}

support::Status ChangeRecord::finish(const support::Result<Outcome>& outcome) {
    record_.took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - began_);
    noteOutcome(record_, outcome);
    return recordInTrail(trail_, record_);
}

void finishRecord(ChangeRecord* record, const std::string& operation,
                  const support::Result<Outcome>& outcome) {
    if (record == nullptr) {
        return;
    }
    record->ran(operation);
    if (support::Status recorded = record->finish(outcome); !recorded) {
        complain(recorded.message());
    }
}

}  // namespace velnor::host
