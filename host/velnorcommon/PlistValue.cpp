#include "PlistValue.h"

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <stdexcept>

#include "PlistTreePath.h"

namespace velnor {

const PlistValue* PlistDictionary::find(std::string_view key) const {
    auto entry = entries_.find(key);
    return entry == entries_.end() ? nullptr : &entry->second;
}

PlistDictionary::PlistDictionary(
    std::initializer_list<std::pair<std::string, PlistValue>> entries) {
    for (const auto& [key, value] : entries) {
        set(key, value);
    }
}

void PlistDictionary::set(std::string key, PlistValue value) {
    if (value.isAbsent()) {
        throw std::invalid_argument("cannot store an absent value under the key \"" + key + "\"");
    }
    entries_.insert_or_assign(std::move(key), std::move(value));
}

void PlistDictionary::remove(std::string_view key) {
    auto entry = entries_.find(key);
    if (entry != entries_.end()) {
        entries_.erase(entry);
    }
}

bool PlistDictionary::operator==(const PlistDictionary& other) const {
    return entries_ == other.entries_;
}

PlistValue PlistValue::integer(std::int64_t number) {
    PlistValue value;
    value.value_ = Integer{static_cast<std::uint64_t>(number), number < 0};
    return value;
}

PlistValue PlistValue::unsignedInteger(std::uint64_t number) {
    PlistValue value;
    value.value_ = Integer{number, false};
    return value;
}

PlistValue PlistValue::boolean(bool flag) {
    PlistValue value;
    value.value_ = Boolean{flag};
    return value;
}

PlistValue PlistValue::real(double number) {
    PlistValue value;
    value.value_ = Real{number};
    return value;
}

PlistValue PlistValue::date(double secondsSince2001) {
    PlistValue value;
    value.value_ = Date{secondsSince2001};
    return value;
}

PlistValue PlistValue::data(std::string bytes) {
    PlistValue value;
    value.value_ = Data{std::move(bytes)};
    return value;
}

PlistValue PlistValue::uid(std::uint64_t reference) {
    PlistValue value;
    value.value_ = Uid{reference};
    return value;
}

bool PlistValue::Real::operator==(const Real& other) const {
    return std::bit_cast<std::uint64_t>(number) == std::bit_cast<std::uint64_t>(other.number);
}

bool PlistValue::Date::operator==(const Date& other) const {
    return std::bit_cast<std::uint64_t>(secondsSince2001) ==
           std::bit_cast<std::uint64_t>(other.secondsSince2001);
}

std::optional<double> PlistValue::asReal() const {
    if (const auto* real = std::get_if<Real>(&value_)) {
        return real->number;
    }
    return std::nullopt;
}

std::optional<double> PlistValue::asDate() const {
    if (const auto* date = std::get_if<Date>(&value_)) {
        return date->secondsSince2001;
    }
    return std::nullopt;
}

const std::string* PlistValue::asData() const {
    const auto* data = std::get_if<Data>(&value_);
    return data != nullptr ? &data->bytes : nullptr;
}

std::optional<std::uint64_t> PlistValue::asUid() const {
    if (const auto* uid = std::get_if<Uid>(&value_)) {
        return uid->reference;
    }
    return std::nullopt;
}

std::optional<std::int64_t> PlistValue::asInteger() const {
    const auto* integer = std::get_if<Integer>(&value_);
    if (integer == nullptr ||
        (!integer->negative &&
         integer->bits > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))) {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(integer->bits);
}

std::optional<std::uint64_t> PlistValue::asUnsignedInteger() const {
    const auto* integer = std::get_if<Integer>(&value_);
    if (integer == nullptr || integer->negative) {
        return std::nullopt;
    }
    return integer->bits;
}

std::optional<bool> PlistValue::asBoolean() const {
    if (const auto* boolean = std::get_if<Boolean>(&value_)) {
        return boolean->flag;
    }
    return std::nullopt;
}

const char* kindName(PlistValue::Kind kind) {
    switch (kind) {
        case PlistValue::Kind::Absent:
            return "absent";
        case PlistValue::Kind::String:
            return "string";
        case PlistValue::Kind::Integer:
            return "integer";
        case PlistValue::Kind::Boolean:
            return "boolean";
        case PlistValue::Kind::Array:
            return "array";
        case PlistValue::Kind::Dictionary:
            return "dictionary";
        case PlistValue::Kind::Real:
            return "real";
        case PlistValue::Kind::Date:
            return "date";
        case PlistValue::Kind::Data:
            return "data";
        case PlistValue::Kind::Uid:
            return "uid";
    }
    return "unknown";
}

namespace {

std::optional<std::string> findIntegerAboveSigned(const PlistValue& value, PlistTreePath& path) {
    if (value.kind() == PlistValue::Kind::Integer && !value.asInteger()) {
        return "unsupported integer " + std::to_string(*value.asUnsignedInteger()) +
               ", above the largest signed 64-bit integer, " + path.describe();
    }
    std::optional<std::string> found;
    if (const PlistArray* array = value.asArray()) {
        for (std::size_t index = 0; index < array->size() && !found; ++index) {
            path.enterIndex(index);
            found = findIntegerAboveSigned((*array)[index], path);
            path.leave();
        }
    }
    if (const PlistDictionary* dictionary = value.asDictionary()) {
        for (auto entry = dictionary->begin(); entry != dictionary->end() && !found; ++entry) {
            path.enterKey(entry->first);
            found = findIntegerAboveSigned(entry->second, path);
            path.leave();
        }
    }
    return found;
}

}  // namespace

std::optional<std::string> findIntegerAboveSigned(const PlistValue& value) {
    PlistTreePath path;
    return findIntegerAboveSigned(value, path);
}

std::string textOfReal(double number) {
    if (std::isnan(number)) {
        return "nan";
    }
    if (std::isinf(number)) {
        return number > 0 ? "+infinity" : "-infinity";
    }
    char text[32];
    const auto written = std::to_chars(text, text + sizeof text, number);
    return std::string(text, written.ptr);
}

}  // namespace velnor
