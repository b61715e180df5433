#include "RestartLedger.h"

#include <cerrno>
#include <cmath>
#include <ctime>

#include "PathNames.h"
#include "PropertyListFile.h"
#include "RootFolder.h"
#include "SafePath.h"
#include "StateFolder.h"

namespace velnor::host {
namespace {

constexpr std::array<std::string_view, kMoveCauses> kCauseNames = {
    "operator", "settings change", "migration", "at load", "stop deadline"};

constexpr std::int64_t kLedgerVersion = 1;
constexpr std::string_view kOtherCode = "other";
// Property lists count time from 2001-01-01T00:00:00Z.
constexpr double kSecondsFrom1970To2001 = 978307200;

std::size_t indexOf(MoveCause cause) {
    return static_cast<std::size_t>(cause);
}

void countFailure(std::map<std::string, std::uint64_t>& failures, const std::string& code) {
    if (failures.size() >= kMostFailureCodes && !failures.contains(code)) {
        ++failures[std::string(kOtherCode)];
        return;
    }
    ++failures[code];
}

PlistValue causeCountsValue(const CauseCounts& counts) {
    PlistDictionary value;
    for (std::size_t index = 0; index < kMoveCauses; ++index) {
        value.set(std::string(kCauseNames[index]), PlistValue::unsignedInteger(counts[index]));
    }
    return value;
}

PlistValue codeCountsValue(const std::map<std::string, std::uint64_t>& counts) {
    PlistDictionary value;
    for (const auto& [code, count] : counts) {
        value.set(code, PlistValue::unsignedInteger(count));
    }
    return value;
}

support::Failure notALedger(const std::string& why) {
    return support::Failure{EINVAL, "not a restart ledger: " + why};
}

const PlistDictionary* dictionaryAt(const PlistDictionary& ledger, std::string_view key) {
    const PlistValue* value = ledger.find(key);
    return value != nullptr ? value->asDictionary() : nullptr;
}

support::Result<CauseCounts> causeCountsAt(const PlistDictionary& ledger, std::string_view key) {
    const PlistDictionary* counts = dictionaryAt(ledger, key);
    if (counts == nullptr) {
        return notALedger("\"" + std::string(key) + "\" is not a dictionary");
    }
    CauseCounts parsed{};
    for (const auto& [name, count] : *counts) {
        std::size_t index = 0;
        while (index < kMoveCauses && kCauseNames[index] != name) {
            ++index;
        }
        std::optional<std::uint64_t> number = count.asUnsignedInteger();
        if (index == kMoveCauses || !number) {
            return notALedger("\"" + std::string(key) + "\" holds \"" + name +
                              "\", which is not a cause with a count");
        }
        parsed[index] = *number;
    }
    return parsed;
}

support::Result<std::map<std::string, std::uint64_t>> codeCountsAt(const PlistDictionary& ledger,
                                                                   std::string_view key) {
    const PlistDictionary* counts = dictionaryAt(ledger, key);
    if (counts == nullptr || counts->size() > kMostFailureCodes + 1) {
        return notALedger("\"" + std::string(key) + "\" is not a dictionary of at most " +
                          std::to_string(kMostFailureCodes + 1) + " codes");
    }
    std::map<std::string, std::uint64_t> parsed;
    for (const auto& [code, count] : *counts) {
        std::optional<std::uint64_t> number = count.asUnsignedInteger();
        if (!number) {
            return notALedger("\"" + std::string(key) + "\" holds a code without a count");
        }
        parsed[code] = *number;
    }
    return parsed;
}

// A duration: a finite number of seconds, not below zero.
support::Result<double> secondsAt(const PlistDictionary& ledger, std::string_view key) {
    const PlistValue* value = ledger.find(key);
    std::optional<double> seconds = value != nullptr ? value->asReal() : std::nullopt;
    if (!seconds || !std::isfinite(*seconds) || *seconds < 0) {
        return notALedger("\"" + std::string(key) + "\" is not a number of seconds");
    }
    return *seconds;
}

}  // namespace

std::string_view causeName(MoveCause cause) {
    return kCauseNames[indexOf(cause)];
}

std::string localDayOf(std::chrono::system_clock::time_point moment) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(moment);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[16];
    std::strftime(text, sizeof text, "%Y-%m-%d", &local);
    return text;
}

void recordStart(RestartLedger& ledger, MoveCause cause,
                 std::chrono::system_clock::time_point began, double took) {
    ++ledger.starts[indexOf(cause)];
    const std::string day = localDayOf(began);
    if (day != ledger.day) {
        ledger.day = day;
        ledger.startsToday = {};
    }
    ++ledger.startsToday[indexOf(cause)];
    ledger.lastStart =
        std::chrono::duration_cast<std::chrono::seconds>(began.time_since_epoch()).count();
    ledger.lastStartSeconds = took;
}

void recordStop(RestartLedger& ledger, MoveCause cause, double took) {
    ++ledger.stops[indexOf(cause)];
    ledger.lastStopSeconds = took;
}

void recordFailure(RestartLedger& ledger, bool start, const std::string& code) {
    countFailure(start ? ledger.startFailures : ledger.stopFailures, code);
}

PlistValue ledgerValue(const RestartLedger& ledger) {
    PlistDictionary value{{"ledgerVersion", PlistValue::integer(kLedgerVersion)},
                          {"starts", causeCountsValue(ledger.starts)},
                          {"stops", causeCountsValue(ledger.stops)},
                          {"startFailures", codeCountsValue(ledger.startFailures)},
                          {"stopFailures", codeCountsValue(ledger.stopFailures)},
                          {"lastStartSeconds", PlistValue::real(ledger.lastStartSeconds)},
                          {"lastStopSeconds", PlistValue::real(ledger.lastStopSeconds)},
                          {"day", PlistValue(ledger.day)},
                          {"startsToday", causeCountsValue(ledger.startsToday)}};
    if (ledger.lastStart) {
        value.set("lastStart", PlistValue::integer(*ledger.lastStart));
    }
    return value;
}

support::Result<RestartLedger> ledgerOfValue(const PlistValue& value) {
    const PlistDictionary* file = value.asDictionary();
    const PlistValue* version = file != nullptr ? file->find("ledgerVersion") : nullptr;
    if (version == nullptr || version->asInteger() != kLedgerVersion) {
        return notALedger("no dictionary of ledgerVersion " + std::to_string(kLedgerVersion));
    }
    RestartLedger ledger;
    auto starts = causeCountsAt(*file, "starts");
    auto stops = causeCountsAt(*file, "stops");
    auto startsToday = causeCountsAt(*file, "startsToday");
    auto startFailures = codeCountsAt(*file, "startFailures");
    auto stopFailures = codeCountsAt(*file, "stopFailures");
    auto lastStartSeconds = secondsAt(*file, "lastStartSeconds");
    auto lastStopSeconds = secondsAt(*file, "lastStopSeconds");
    const PlistValue* day = file->find("day");
    const PlistValue* lastStart = file->find("lastStart");
    for (const support::Failure* failure :
         {starts ? nullptr : &starts.failure(), stops ? nullptr : &stops.failure(),
          startsToday ? nullptr : &startsToday.failure(),
          startFailures ? nullptr : &startFailures.failure(),
          stopFailures ? nullptr : &stopFailures.failure(),
          lastStartSeconds ? nullptr : &lastStartSeconds.failure(),
          lastStopSeconds ? nullptr : &lastStopSeconds.failure()}) {
        if (failure != nullptr) {
            return *failure;
        }
    }
    if (day == nullptr || day->asString() == nullptr) {
        return notALedger("\"day\" is not a string");
    }
    if (lastStart != nullptr && !lastStart->asInteger()) {
        return notALedger("\"lastStart\" is not a number of seconds since 1970");
    }
    ledger.starts = *starts;
    ledger.stops = *stops;
    ledger.startsToday = *startsToday;
    ledger.startFailures = std::move(*startFailures);
    ledger.stopFailures = std::move(*stopFailures);
    ledger.lastStartSeconds = *lastStartSeconds;
    ledger.lastStopSeconds = *lastStopSeconds;
    ledger.day = *day->asString();
    if (lastStart != nullptr) {
        ledger.lastStart = lastStart->asInteger();
    }
    return ledger;
}

support::Result<RestartLedger> readLedgerFile(const std::string& path) {
    support::Result<PlistValue> value = readPropertyListFile(path);
    if (!value) {
        if (value.error() == ENOENT) {
            return RestartLedger{};
        }
        return value.failure();
    }
    support::Result<RestartLedger> ledger = ledgerOfValue(*value);
    if (!ledger) {
        return support::couldNot("read", path, ledger.message(), EINVAL);
    }
    return ledger;
}

support::Status writeLedgerFile(const std::string& path, const RestartLedger& ledger) {
    support::Result<support::UniqueFd> folder = openStateFolder(support::folderOf(path));
    if (!folder) {
        return folder.failure();
    }
    // Exactly root's and 0600, whatever stood there before: the ledger is the daemon's own.
    return support::replaceFile(path, toXmlPropertyList(ledgerValue(ledger)),
                                support::Attributes{0600, 0, 0, "root:root"});
}

PlistValue ledgerFigures(const RestartLedger& ledger, const std::string& today) {
    PlistDictionary figures{
        {"startsToday",
         causeCountsValue(ledger.day == today ? ledger.startsToday : CauseCounts{})}};
    if (ledger.lastStart) {
        figures.set("lastStart", PlistValue::date(static_cast<double>(*ledger.lastStart) -
                                                  kSecondsFrom1970To2001));
    }
    return figures;
}

}  // namespace velnor::host
