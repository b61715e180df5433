// Property-list files, read and written through libplist.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "PlistValue.h"

namespace velnor {

// Parses a property list held in memory, XML or binary. Nothing when the bytes are not a
// property list; error, when given, then says why in one line.
std::optional<PlistValue> parsePropertyList(std::string_view bytes, std::string* error = nullptr);

// Reads a property-list file, XML or binary. Nothing when the file cannot be read or is not a
// property list; error, when given, then says why in one line.
std::optional<PlistValue> readPropertyListFile(const std::string& path,
                                               std::string* error = nullptr);

// Reads a property-list file whose top level is a dictionary; nothing otherwise.
std::optional<PlistDictionary> readPropertyListDictionary(const std::string& path,
                                                          std::string* error = nullptr);

// The value as an XML property list.
std::string toXmlPropertyList(const PlistValue& value);

// Writes the value as an XML property list to a temporary file in the same folder, flushes it
// and renames it over path, keeping the mode and owner of the file it replaces. On failure the
// old file is left whole and false is returned. A value holding a string that XML cannot carry
// exactly (PlistText.h) is refused.
bool writePropertyListAtomically(const std::string& path, const PlistValue& value);

}  // namespace velnor
