// Text that an XML property list carries exactly. XML 1.0 has no way to write a zero byte or a
// C0 control character other than tab, line feed and carriage return, and a reader turns a
// carriage return into a line feed; U+FFFE and U+FFFF are not characters at all. A string
// holding any of these would come back otherwise, or make the file unreadable.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Export.h"
#include "PlistValue.h"

namespace velnor {

// The position of the first character in text that an XML property list cannot carry exactly,
// or std::string_view::npos when there is none.
VELNOR_EXPORT std::size_t uncarriableCharacterAt(std::string_view text);

// The character at position as messages name it: "U+0001".
VELNOR_EXPORT std::string characterNameAt(std::string_view text, std::size_t position);

// The first key or string in value, in the order of the tree, that holds such a character,
// described with where it is: the string under "Outer" / 2 holds U+0001. Nothing when all of
// them are carried exactly.
VELNOR_EXPORT std::optional<std::string> findUncarriableText(const PlistValue& value);

}  // namespace velnor
