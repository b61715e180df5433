#include "AuditHistory.h"

#include <charconv>
#include <ctime>
#include <nlohmann/json.hpp>

#include "ExitStatus.h"
#include "Output.h"
#include "Terminal.h"

namespace velnor::host {
namespace {

using Clock = std::chrono::system_clock;

// The JSON that the trail holds as a value of our own, so that it prints as every other
// response does. A null, which the trail never writes, is left out.
PlistValue valueOfJson(const nlohmann::json& json) {
    using Type = nlohmann::json::value_t;
    switch (json.type()) {
        case Type::object: {
            PlistDictionary dictionary;
            for (const auto& [key, entry] : json.items()) {
                if (!entry.is_null()) {
                    dictionary.set(key, valueOfJson(entry));
                }
            }
            return dictionary;
        }
        case Type::array: {
            PlistArray array;
            for (const nlohmann::json& entry : json) {
                array.push_back(valueOfJson(entry));
            }
            return array;
        }
        case Type::string:
            return PlistValue(json.get<std::string>());
        case Type::boolean:
            return PlistValue::boolean(json.get<bool>());
        case Type::number_integer:
            return PlistValue::integer(json.get<std::int64_t>());
        case Type::number_unsigned:
            return PlistValue::unsignedInteger(json.get<std::uint64_t>());
        case Type::number_float:
            return PlistValue::real(json.get<double>());
        default:
            break;
    }
    return PlistValue();
}

// A span before now: digits then s, m, h or d.
std::optional<Clock::duration> parseSpan(std::string_view text) {
    if (text.size() < 2) {
        return std::nullopt;
    }
    std::int64_t count = 0;
    const char* end = text.data() + text.size() - 1;
    auto [stop, error] = std::from_chars(text.data(), end, count);
    if (error != std::errc() || stop != end || count < 0 || count > 100000000) {
        return std::nullopt;
    }
    switch (text.back()) {
        case 's':
            return std::chrono::seconds(count);
        case 'm':
            return std::chrono::minutes(count);
        case 'h':
            return std::chrono::hours(count);
        case 'd':
            return std::chrono::hours(24 * count);
        default:
            break;
    }
    return std::nullopt;
}

// An ISO 8601 date, or date and time, in UTC.
std::optional<Clock::time_point> parseIsoTime(std::string_view text) {
    if (text.ends_with('Z')) {
        text.remove_suffix(1);
    }
    const std::string whole(text);
    struct tm calendar {};
    const char* rest = strptime(whole.c_str(), "%Y-%m-%d", &calendar);
    if (rest == nullptr || whole.size() != 10 + std::string_view(rest).size()) {
        return std::nullopt;
    }
    double fraction = 0;
    if (*rest == 'T' || *rest == ' ') {
        const char* time = strptime(rest + 1, "%H:%M", &calendar);
        if (time != nullptr && *time == ':') {
            time = strptime(time + 1, "%S", &calendar);
        }
        if (time != nullptr && *time == '.') {
            const char* digits = time + 1;
            for (time = digits; *time >= '0' && *time <= '9'; ++time) {
            }
            fraction = time > digits ? std::stod("0." + std::string(digits, time)) : -1;
        }
        rest = fraction < 0 ? nullptr : time;
    }
    if (rest == nullptr || *rest != '\0') {
        return std::nullopt;
    }
    const std::time_t seconds = timegm(&calendar);
    return Clock::from_time_t(seconds) +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(fraction));
}

}  // namespace

std::optional<Clock::time_point> parseSince(std::string_view text, Clock::time_point now) {
    if (std::optional<Clock::duration> span = parseSpan(text)) {
        return now - *span;
    }
    return parseIsoTime(text);
}

void readTrailText(std::string_view text, const std::string& since, TrailReading& reading) {
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (line.find_first_not_of(" \t\r") == std::string_view::npos) {
            continue;
        }
        const nlohmann::json record = nlohmann::json::parse(line, nullptr, false);
        if (!record.is_object()) {
            ++reading.unreadable;
            continue;
        }
        PlistValue value = valueOfJson(record);
        const PlistValue* time = value.asDictionary()->find("time");
        if (time != nullptr && time->asString() != nullptr && *time->asString() < since) {
            continue;
        }
        reading.records.push_back(std::move(value));
    }
}

int runHistory(const Command& command, const AuditTrail& trail) {
    std::string since;
    if (command.since) {
        // The command line has checked the text already.
        since = auditTime(*parseSince(*command.since, Clock::now()));
    }
    support::Result<std::vector<std::string>> files = trail.readFiles();
    if (!files) {
        complain(files.message());
        return kExitUnavailable;
    }
    TrailReading reading;
    for (const std::string& file : *files) {
        readTrailText(file, since, reading);
    }
    if (reading.unreadable > 0) {
        complain(std::to_string(reading.unreadable) + " lines of the audit trail \"" +
                 trail.path() + "\" are not whole records; they are left out");
    }
    std::string text;
    if (command.json) {
        text = formatResponse(PlistValue(std::move(reading.records)), OutputForm::Json);
    } else {
        for (const PlistValue& record : reading.records) {
            text += auditWords(*record.asDictionary()) + "\n";
        }
    }
    if (!terminal().toOut(text)) {
        complain(support::couldNot("write the history to", "standard output", errno).message);
        return kExitOutputFailed;
    }
    return kExitNormal;
}

}  // namespace velnor::host
