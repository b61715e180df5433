// Property-list files, read and written through libplist.
#pragma once

#include <string>
#include <string_view>

#include "Export.h"
#include "PlistValue.h"
#include "Result.h"

namespace velnor {

// Parses a property list held in memory, XML or binary. Fails, with the reason alone as its
// message, when the bytes are not a property list.
VELNOR_EXPORT support::Result<PlistValue> parsePropertyList(std::string_view bytes);

// Reads a property-list file, XML or binary, following a link only where the folder that holds
// it is root's alone (SafePath.h). Fails with `could not read "PATH": REASON` when the file
// cannot be read or is not a property list; error() is ENOENT when there is no file.
VELNOR_EXPORT support::Result<PlistValue> readPropertyListFile(const std::string& path);

// Reads a property-list file whose top level is a dictionary; fails the same way otherwise.
VELNOR_EXPORT support::Result<PlistDictionary> readPropertyListDictionary(const std::string& path);

// The value as an XML property list.
VELNOR_EXPORT std::string toXmlPropertyList(const PlistValue& value);

// The value as a binary property list, which keeps every kind and string exactly. Throws
// std::invalid_argument for an absent value.
VELNOR_EXPORT std::string toBinaryPropertyList(const PlistValue& value);

// Writes the value as a property list to a temporary file in the same folder, flushes it and
// renames it over path, keeping the mode and owner of the file it replaces, and its format: a
// binary file stays binary, since it may hold what XML cannot carry; a new file is XML. Refused
// when the value holds a string that the format cannot carry exactly (PlistText.h), or would
// not read back the same. On failure the old file is left whole, and the reason is also logged
// in the host's log.
VELNOR_EXPORT support::Status writePropertyListAtomically(const std::string& path,
                                                          const PlistValue& value);

}  // namespace velnor
