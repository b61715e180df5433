// The request dictionary of `call` for a request operation, read from a property-list file or
// standard input.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "PlistValue.h"

namespace velnor::host {

// The argument that reads the request from standard input.
inline constexpr std::string_view kStandardInputArgument = "-";

// The request held by bytes, a property list (XML or binary) whose top level is a dictionary.
// Nothing otherwise; error then says, naming source, whether the bytes are no property list
// (with the parser's reason: a zero byte, nesting deeper than 256 levels), which key or string
// holds a character that an XML property list cannot carry exactly (see PlistText.h), or which
// kind of value stands at the top.
std::optional<PlistDictionary> requestFromBytes(std::string_view bytes, const std::string& source,
                                                std::string* error);

// The request that `call` passes for this argument: an empty dictionary when there is none,
// the dictionary in standard input for "-", else the dictionary in the file it names. Nothing
// when the file cannot be read or holds no dictionary; error then names the file (or standard
// input) and what is wrong.
std::optional<PlistDictionary> readRequest(const std::optional<std::string>& argument,
                                           std::string* error);

}  // namespace velnor::host
