// Text that a property list carries exactly, in each of its two formats.
//
// Both hold text only: a binary list stores a string as ASCII or UTF-16, an XML one as UTF-8,
// so bytes that are not UTF-8 (a surrogate's encoding included) are lost or make the file
// unreadable, and libplist cuts a string at a zero byte. XML 1.0 has besides no way to write a C0
// control character other than tab, line feed and carriage return, and a reader turns a carriage
// return into a line feed; U+FFFE and U+FFFF are not characters in it at all. A binary list
// carries all of these exactly.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Export.h"
#include "PlistValue.h"

namespace velnor {

// The two ways a property list is written.
enum class PlistFormat { Xml, Binary };

// The length of the UTF-8 sequence at position, or 0 when the bytes there are not one: a stray
// or missing continuation byte, an overlong form, a surrogate or a code point above U+10FFFF.
// The host's one reading of UTF-8, for property lists and JSON alike.
VELNOR_EXPORT std::size_t utf8LengthAt(std::string_view text, std::size_t position);

// The format's name as messages show it: "an XML property list", "a binary property list".
VELNOR_EXPORT const char* formatName(PlistFormat format);

// The position of the first character in text that a property list of the format cannot carry
// exactly, or std::string_view::npos when there is none.
VELNOR_EXPORT std::size_t uncarriableCharacterAt(std::string_view text, PlistFormat format);

// The character at position, which uncarriableCharacterAt found, as messages name it: "U+0001",
// or "the byte 0xFF" where the text is not UTF-8.
VELNOR_EXPORT std::string characterNameAt(std::string_view text, std::size_t position);

// The first key or string in value, in the order of the tree, that a property list of the format
// cannot carry exactly, described with where it is: the string under "Outer" / 2 holds U+0001.
// Nothing when all of them are carried exactly.
VELNOR_EXPORT std::optional<std::string> findUncarriableText(const PlistValue& value,
                                                             PlistFormat format);

}  // namespace velnor
