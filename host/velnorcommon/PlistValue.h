// Property-list values as the host and its plug-ins exchange them.
//
// Every kind a property-list file can hold has its own alternative, so that a file read and
// written whole keeps every value and kind; integers run from the smallest signed 64-bit one to
// the largest unsigned one, as binary property lists carry them. Integers and booleans are distinct
// kinds: an integer 0 is never false, in memory, in a property-list file or in JSON; reals are a
// third kind again. A default-constructed value is absent; a dictionary refuses to hold an absent
// value.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "Export.h"

namespace velnor {

class PlistValue;
using PlistArray = std::vector<PlistValue>;

class VELNOR_EXPORT PlistDictionary {
  public:
    using Entries = std::map<std::string, PlistValue, std::less<>>;

    PlistDictionary() = default;
    // The entries stored one after another, as set stores them.
    PlistDictionary(std::initializer_list<std::pair<std::string, PlistValue>> entries);

    // The value under key, or nullptr when the key is not there.
    const PlistValue* find(std::string_view key) const;
    bool contains(std::string_view key) const { return find(key) != nullptr; }

    // Stores value under key, replacing an earlier one. Throws std::invalid_argument when the
    // value is absent: a dictionary has no way to hold "nothing" under a key.
    void set(std::string key, PlistValue value);
    void remove(std::string_view key);

    std::size_t size() const { return entries_.size(); }
    bool empty() const { return entries_.empty(); }

    // Entries in ascending byte order of their keys.
    Entries::const_iterator begin() const { return entries_.begin(); }
    Entries::const_iterator end() const { return entries_.end(); }

    bool operator==(const PlistDictionary& other) const;

  private:
    Entries entries_;
};

class VELNOR_EXPORT PlistValue {
  public:
    enum class Kind { Absent, String, Integer, Boolean, Array, Dictionary, Real, Date, Data, Uid };

    PlistValue() = default;
    PlistValue(std::string text) : value_(std::move(text)) {}
    PlistValue(const char* text) : value_(std::string(text)) {}
    PlistValue(PlistArray array) : value_(std::move(array)) {}
    PlistValue(PlistDictionary dictionary) : value_(std::move(dictionary)) {}

    // Integers and booleans have named constructors so that a literal 0 can never turn into
    // false, or true into 1, by overload resolution.
    static PlistValue integer(std::int64_t number);
    // An integer up to the largest unsigned 64-bit one; the same value as integer(number)
    // wherever both can hold it.
    static PlistValue unsignedInteger(std::uint64_t number);
    static PlistValue boolean(bool flag);
    static PlistValue real(double number);
    // A point in time as property lists count it: seconds since 2001-01-01T00:00:00Z.
    static PlistValue date(double secondsSince2001);
    // Bytes, which a property list keeps apart from text.
    static PlistValue data(std::string bytes);
    // The object reference of a keyed archive.
    static PlistValue uid(std::uint64_t reference);

    Kind kind() const { return static_cast<Kind>(value_.index()); }
    bool isAbsent() const { return kind() == Kind::Absent; }

    // Each accessor answers nullptr (or nullopt) when the value is of another kind, and the two
    // integer accessors also when the integer lies outside their type.
    const std::string* asString() const { return std::get_if<std::string>(&value_); }
    std::optional<std::int64_t> asInteger() const;
    std::optional<std::uint64_t> asUnsignedInteger() const;
    std::optional<bool> asBoolean() const;
    const PlistArray* asArray() const { return std::get_if<PlistArray>(&value_); }
    const PlistDictionary* asDictionary() const { return std::get_if<PlistDictionary>(&value_); }
    std::optional<double> asReal() const;
    std::optional<double> asDate() const;
    const std::string* asData() const;
    std::optional<std::uint64_t> asUid() const;

    bool operator==(const PlistValue& other) const { return value_ == other.value_; }

  private:
    // The integer's 64 bits, and whether they stand for a negative number: -1 and the largest
    // unsigned integer have the same bits.
    struct Integer {
        std::uint64_t bits;
        bool negative;
        bool operator==(const Integer&) const = default;
    };
    struct Boolean {
        bool flag;
        bool operator==(const Boolean&) const = default;
    };
    // Reals and dates compare by their bits, so that -0 and 0 differ and a NaN equals itself:
    // equal means written back the same.
    struct Real {
        double number;
        bool operator==(const Real& other) const;
    };
    struct Date {
        double secondsSince2001;
        bool operator==(const Date& other) const;
    };
    struct Data {
        std::string bytes;
        bool operator==(const Data&) const = default;
    };
    struct Uid {
        std::uint64_t reference;
        bool operator==(const Uid&) const = default;
    };

    // The order of the alternatives follows Kind.
    std::variant<std::monostate, std::string, Integer, Boolean, PlistArray, PlistDictionary, Real,
                 Date, Data, Uid>
        value_;
};

// The kind's name as messages show it: "string", "integer", "boolean", "array", "dictionary",
// "real", "date", "data", "uid", "absent".
VELNOR_EXPORT const char* kindName(PlistValue::Kind kind);

// The first integer in value, in the order of the tree, that a signed 64-bit integer cannot
// hold, described with where it is: unsupported integer 18446744073709551615, above the largest
// signed 64-bit integer, under "Outer" / 2. Nothing when there is none. Plug-ins take integers
// as signed 64-bit ones.
VELNOR_EXPORT std::optional<std::string> findIntegerAboveSigned(const PlistValue& value);

// A real as property lists write it: the shortest decimal form that reads back as the same
// number ("0.1", "-0", "1e+300"), or "nan", "+infinity", "-infinity".
VELNOR_EXPORT std::string textOfReal(double number);

}  // namespace velnor
