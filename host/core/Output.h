// How the host prints what an operation answered: an XML property list, JSON, or the short
// human form of the friendly verbs.
#pragma once

#include <string>

#include "PlistValue.h"

namespace velnor::host {

enum class OutputForm { PropertyList, Json, Human };

// The value as JSON, indented by two spaces per level, without a final line feed. Strings are
// escaped ('"', '\\' and every control character) and their UTF-8 kept as it is; a byte that is
// not part of valid UTF-8 becomes U+FFFD so that the document stays valid. Integers are
// numbers and booleans true/false; reals are numbers that always hold a '.' or an exponent
// (NaN and the infinities, which JSON lacks, the strings "nan", "+infinity", "-infinity");
// dates are ISO 8601 strings in UTC; data is a base64 string; a uid is {"CF$UID": N}.
// Dictionaries become objects with their keys in dictionary order. An absent value is null.
std::string toJson(const PlistValue& value);

// The value as JSON on one line, with the same escaping and forms as toJson and no whitespace
// between tokens: a line of a JSON-lines file, which no string can break (a line feed in one is
// written "\n").
std::string toJsonLine(const PlistValue& value);

// The value as "key: value" lines, each ending in a line feed. A nested dictionary is its key
// alone on a line followed by its entries indented two more spaces; array elements are "- "
// lines. Strings print as they are, booleans as true/false, reals, dates and data as in JSON
// without quotes, a uid as its number. A value that is not a dictionary
// prints as its own line (or lines); an absent value prints nothing.
std::string toHumanForm(const PlistValue& value);

// The text the host prints for a response or result: empty for an absent value, except in
// JSON where it is "null", so that every --json run prints one JSON document. Ends in a line
// feed whenever it is not empty.
std::string formatResponse(const PlistValue& value, OutputForm form);

}  // namespace velnor::host
