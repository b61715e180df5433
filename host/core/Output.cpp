#include "Output.h"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string_view>

#include "PlistNode.h"
#include "PlistText.h"
#include "PropertyListFile.h"

namespace velnor::host {
namespace {

constexpr int kIndentStep = 2;
// The indent that lays a JSON value out on one line, with no space between its tokens.
constexpr int kOneLine = -1;
constexpr std::string_view kReplacementCharacter = "\\ufffd";
// Property lists count dates from 2001-01-01T00:00:00Z; Unix time from 1970.
constexpr double kUnixSecondsAt2001 = 978307200;

void appendEscapedAscii(std::string& out, char character) {
    switch (character) {
        case '"':
            out += "\\\"";
            return;
        case '\\':
            out += "\\\\";
            return;
        case '\b':
            out += "\\b";
            return;
        case '\f':
            out += "\\f";
            return;
        case '\n':
            out += "\\n";
            return;
        case '\r':
            out += "\\r";
            return;
        case '\t':
            out += "\\t";
            return;
        default:
            break;
    }
    if (static_cast<unsigned char>(character) < 0x20) {
        char escape[7];
        std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(character));
        out += escape;
    } else {
        out += character;
    }
}

void appendJsonString(std::string& out, std::string_view text) {
    out += '"';
    while (!text.empty()) {
        if (static_cast<unsigned char>(text.front()) < 0x80) {
            appendEscapedAscii(out, text.front());
            text.remove_prefix(1);
            continue;
        }
        std::size_t length = utf8LengthAt(text, 0);
        if (length == 0) {
            out += kReplacementCharacter;
            text.remove_prefix(1);
        } else {
            out += text.substr(0, length);
            text.remove_prefix(length);
        }
    }
    out += '"';
}

// A date in ISO 8601, in UTC, with the fraction of a second when there is one:
// 2024-05-06T07:08:09Z, 2024-05-06T07:08:09.25Z. A date beyond what the calendar functions
// reach shows as its seconds since 2001.
std::string textOfDate(double secondsSince2001) {
    const double unixSeconds = secondsSince2001 + kUnixSecondsAt2001;
    const double whole = std::floor(unixSeconds);
    struct tm calendar {};
    const auto time = static_cast<std::time_t>(whole);
    char text[64];
    if (!std::isfinite(whole) || std::fabs(whole) > 1e15 || gmtime_r(&time, &calendar) == nullptr ||
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &calendar) == 0) {
        return textOfReal(secondsSince2001);
    }
    std::string date = text;
    if (const double fraction = unixSeconds - whole; fraction > 0) {
        // "0.25" without its leading zero
        date += textOfReal(fraction).substr(1);
    }
    return date + "Z";
}

// A real as JSON: a number that always shows it is no integer ("1.0"); JSON has no numbers
// for NaN and the infinities, so those are the strings that property lists write for them.
std::string jsonOfReal(double number) {
    std::string text = textOfReal(number);
    if (!std::isfinite(number)) {
        return '"' + text + '"';
    }
    if (text.find_first_of(".e") == std::string::npos) {
        text += ".0";
    }
    return text;
}

void appendNewLine(std::string& out, int indent) {
    if (indent == kOneLine) {
        return;
    }
    out += '\n';
    out.append(static_cast<std::size_t>(indent), ' ');
}

// The indent of what a value nests.
int deeper(int indent) {
    return indent == kOneLine ? kOneLine : indent + kIndentStep;
}

void appendJson(std::string& out, const PlistValue& value, int indent);

void appendJsonArray(std::string& out, const PlistArray& array, int indent) {
    if (array.empty()) {
        out += "[]";
        return;
    }
    out += '[';
    const char* separator = "";
    for (const PlistValue& element : array) {
        out += separator;
        appendNewLine(out, deeper(indent));
        appendJson(out, element, deeper(indent));
        separator = ",";
    }
    appendNewLine(out, indent);
    out += ']';
}

void appendJsonObject(std::string& out, const PlistDictionary& dictionary, int indent) {
    if (dictionary.empty()) {
        out += "{}";
        return;
    }
    out += '{';
    const char* separator = "";
    for (const auto& [key, value] : dictionary) {
        out += separator;
        appendNewLine(out, deeper(indent));
        appendJsonString(out, key);
        out += indent == kOneLine ? ":" : ": ";
        appendJson(out, value, deeper(indent));
        separator = ",";
    }
    appendNewLine(out, indent);
    out += '}';
}

void appendJson(std::string& out, const PlistValue& value, int indent) {
    switch (value.kind()) {
        case PlistValue::Kind::Absent:
            out += "null";
            return;
        case PlistValue::Kind::String:
            appendJsonString(out, *value.asString());
            return;
        case PlistValue::Kind::Integer:
            out += std::to_string(*value.asInteger());
            return;
        case PlistValue::Kind::Boolean:
            out += *value.asBoolean() ? "true" : "false";
            return;
        case PlistValue::Kind::Array:
            appendJsonArray(out, *value.asArray(), indent);
            return;
        case PlistValue::Kind::Dictionary:
            appendJsonObject(out, *value.asDictionary(), indent);
            return;
        case PlistValue::Kind::Real:
            out += jsonOfReal(*value.asReal());
            return;
        case PlistValue::Kind::Date:
            appendJsonString(out, textOfDate(*value.asDate()));
            return;
        case PlistValue::Kind::Data:
            appendJsonString(out, base64OfBytes(*value.asData()));
            return;
        case PlistValue::Kind::Uid:
            out += (indent == kOneLine ? "{\"CF$UID\":" : "{\"CF$UID\": ") +
                   std::to_string(*value.asUid()) + "}";
            return;
    }
}

// A value that fits on the line of its key, or nothing for one that needs lines of its own.
std::optional<std::string> humanScalar(const PlistValue& value) {
    switch (value.kind()) {
        case PlistValue::Kind::String:
            return *value.asString();
        case PlistValue::Kind::Integer:
            return std::to_string(*value.asInteger());
        case PlistValue::Kind::Boolean:
            return std::string(*value.asBoolean() ? "true" : "false");
        case PlistValue::Kind::Array:
            if (value.asArray()->empty()) {
                return std::string("[]");
            }
            return std::nullopt;
        case PlistValue::Kind::Dictionary:
            if (value.asDictionary()->empty()) {
                return std::string("{}");
            }
            return std::nullopt;
        case PlistValue::Kind::Real:
            return textOfReal(*value.asReal());
        case PlistValue::Kind::Date:
            return textOfDate(*value.asDate());
        case PlistValue::Kind::Data:
            return base64OfBytes(*value.asData());
        case PlistValue::Kind::Uid:
            return std::to_string(*value.asUid());
        case PlistValue::Kind::Absent:
            break;
    }
    return std::string();
}

void appendHumanValue(std::string& out, const PlistValue& value, int indent);

// One line "LABEL VALUE" for a value that fits on it, else "LABEL" followed by the value's own
// lines indented one step further.
void appendHumanLabelled(std::string& out, std::string_view label, const PlistValue& value,
                         int indent) {
    out.append(static_cast<std::size_t>(indent), ' ');
    out += label;
    if (std::optional<std::string> scalar = humanScalar(value)) {
        out += ' ';
        out += *scalar;
        out += '\n';
        return;
    }
    out += '\n';
    appendHumanValue(out, value, indent + kIndentStep);
}

void appendHumanValue(std::string& out, const PlistValue& value, int indent) {
    if (value.isAbsent()) {
        return;
    }
    if (const PlistDictionary* dictionary = value.asDictionary()) {
        for (const auto& [key, entry] : *dictionary) {
            appendHumanLabelled(out, key + ":", entry, indent);
        }
    } else if (const PlistArray* array = value.asArray()) {
        for (const PlistValue& element : *array) {
            appendHumanLabelled(out, "-", element, indent);
        }
    } else {
        out.append(static_cast<std::size_t>(indent), ' ');
        out += *humanScalar(value);
        out += '\n';
    }
}

}  // namespace

std::string toJson(const PlistValue& value) {
    std::string out;
    appendJson(out, value, 0);
    return out;
}

std::string toJsonLine(const PlistValue& value) {
    std::string out;
    appendJson(out, value, kOneLine);
    return out;
}

std::string toHumanForm(const PlistValue& value) {
    std::string out;
    appendHumanValue(out, value, 0);
    return out;
}

std::string formatResponse(const PlistValue& value, OutputForm form) {
    switch (form) {
        case OutputForm::Json:
            return toJson(value) + "\n";
        case OutputForm::Human:
            return toHumanForm(value);
        case OutputForm::PropertyList:
            break;
    }
    if (value.isAbsent()) {
        return {};
    }
    std::string xml = toXmlPropertyList(value);
    if (!xml.empty() && xml.back() != '\n') {
        xml += '\n';
    }
    return xml;
}

}  // namespace velnor::host
