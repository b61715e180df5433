#include "PlistValue.h"

#include <stdexcept>

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
    value.value_ = Integer{number};
    return value;
}

PlistValue PlistValue::boolean(bool flag) {
    PlistValue value;
    value.value_ = Boolean{flag};
    return value;
}

std::optional<std::int64_t> PlistValue::asInteger() const {
    if (const auto* integer = std::get_if<Integer>(&value_)) {
        return integer->number;
    }
    return std::nullopt;
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
    }
    return "unknown";
}

}  // namespace velnor
