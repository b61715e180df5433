// The request dictionary of `call` for a request operation, read from a property-list file or
// standard input.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "PlistValue.h"
#include "Result.h"

namespace velnor::host {

// The argument that reads the request from standard input.
inline constexpr std::string_view kStandardInputArgument = "-";

// The request held by bytes, a property list (XML or binary) whose top level is a dictionary.
// Fails otherwise with `could not read the request "SOURCE": REASON`, the reason saying whether
// the bytes are no property list (with the parser's reason: a zero byte, nesting deeper than
// 256 levels), which key or string holds a character that an XML property list cannot carry
// exactly (see PlistText.h), or which kind of value stands at the top.
support::Result<PlistDictionary> requestFromBytes(std::string_view bytes,
                                                  const std::string& source);

// The request that `call` passes for this argument: an empty dictionary when there is none,
// the dictionary in standard input for "-", else the dictionary in the file it names. Fails,
// naming the file (or "standard input"), when it cannot be read or holds no dictionary.
support::Result<PlistDictionary> readRequest(const std::optional<std::string>& argument);

}  // namespace velnor::host
