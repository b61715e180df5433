// What libplist 2.2 must not be handed, checked before it is.
//
// Its binary parser recurses once per level of nesting and parses a shared object anew at every
// reference to it, so a small file can exhaust the stack or the memory; it cuts an ASCII string
// at a zero byte, and keeps a UTF-16 key's zero byte, on which its key accessor aborts the
// process. Its XML parser builds a tree of any depth without recursing, but freeing or writing
// that tree recurses again, and it cuts text at a raw zero byte.
#pragma once

#include <plist/plist.h>

#include <cstdint>
#include <string_view>

#include "Result.h"

namespace velnor {

// The deepest nesting of arrays and dictionaries that a property list may have.
inline constexpr std::size_t kMaxPlistNesting = 256;
// The most values a binary property list may expand to, counting a shared object at every
// reference to it.
inline constexpr std::uint64_t kMaxPlistValues = 1'000'000;

// A binary property list whose objects libplist parses within those bounds, with no zero byte
// in any string or key; else the reason (which object, at which byte).
support::Status checkBinaryPlistBytes(std::string_view bytes);

// XML text with no zero byte; else the reason (at which byte).
support::Status checkXmlPlistBytes(std::string_view bytes);

// A tree no deeper than kMaxPlistNesting, measured without recursion.
support::Status checkPlistNesting(plist_t root);

// Frees a tree of any depth, one childless node at a time, without recursion. For trees that
// libplist's XML parser built, whose keys are whole C strings.
void freePlistWithoutRecursion(plist_t root);

}  // namespace velnor
