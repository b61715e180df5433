#include "PlistPrinting.h"

#include <iomanip>

namespace velnor {

void PrintTo(const PlistDictionary& dictionary, std::ostream* out) {
    *out << "{";
    const char* separator = "";
    for (const auto& [key, value] : dictionary) {
        *out << separator << std::quoted(key) << ": ";
        PrintTo(value, out);
        separator = ", ";
    }
    *out << "}";
}

void PrintTo(const PlistValue& value, std::ostream* out) {
    switch (value.kind()) {
        case PlistValue::Kind::Absent:
            *out << "<absent>";
            break;
        case PlistValue::Kind::String:
            *out << std::quoted(*value.asString());
            break;
        case PlistValue::Kind::Integer:
            *out << "<integer>" << *value.asInteger();
            break;
        case PlistValue::Kind::Boolean:
            *out << (*value.asBoolean() ? "<true>" : "<false>");
            break;
        case PlistValue::Kind::Array: {
            *out << "[";
            const char* separator = "";
            for (const auto& element : *value.asArray()) {
                *out << separator;
                PrintTo(element, out);
                separator = ", ";
            }
            *out << "]";
            break;
        }
        case PlistValue::Kind::Dictionary:
            PrintTo(*value.asDictionary(), out);
            break;
        case PlistValue::Kind::Real:
            *out << "<real>" << textOfReal(*value.asReal());
            break;
        case PlistValue::Kind::Date:
            *out << "<date>" << textOfReal(*value.asDate());
            break;
        case PlistValue::Kind::Data:
            *out << "<data>" << std::quoted(*value.asData());
            break;
        case PlistValue::Kind::Uid:
            *out << "<uid>" << *value.asUid();
            break;
    }
}

}  // namespace velnor
