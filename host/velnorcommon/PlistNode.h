// libplist node trees at the file boundary: parsing bytes into a tree, writing a tree as XML,
// and converting between trees and PlistValue.
//
// Code that must keep every value of a file exactly (kinds that PlistValue cannot hold
// included) edits the tree itself; everything else converts it to a PlistValue.
#pragma once

#include <plist/plist.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Export.h"
#include "PlistText.h"
#include "PlistValue.h"
#include "Result.h"

namespace velnor {

struct PlistNodeFree {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};

// The owner of a whole libplist tree (a node that has no parent).
using PlistNode = std::unique_ptr<void, PlistNodeFree>;

// The tree that the bytes hold, XML or binary. Fails, with the reason alone as its message
// ("not a valid XML property list: ..."), when they are not a property list, or one that
// libplist cannot be trusted with (see PlistInputChecks.h).
support::Result<PlistNode> parsePlistNode(std::string_view bytes);

// The format that a property list's bytes are written in.
PlistFormat formatOfPlistBytes(std::string_view bytes);

// A property-list file's tree, and the format that the file is written in.
struct PlistFile {
    PlistNode root;
    PlistFormat format;
};

// The tree that the file at path holds, path resolved as SafePath.h resolves it. Fails with
// `could not read "PATH": REASON` when it cannot be read or is not a property list; error() is
// ENOENT when there is no file at all.
support::Result<PlistFile> readPlistFile(const std::string& path);

// The tree as an XML property list. Reals are written in the shortest form that reads back as
// the same number, and -0 keeps its sign; dates have whole seconds, as the XML form does.
std::string xmlOfPlistNode(plist_t node);

// The tree as a property list of the format, checked before it is handed out: every value in it
// can be read whole, every key and string is carried exactly by the format (PlistText.h), and
// the bytes read back as the very values of the tree. Fails otherwise, with the reason alone
// ("the string under "Comment" holds U+0007, which an XML property list cannot carry
// exactly").
support::Result<std::string> exactBytesOfPlistNode(plist_t node, PlistFormat format);

// The bytes in base64, as a property list's data element writes them.
VELNOR_EXPORT std::string base64OfBytes(std::string_view bytes);

// The tree as a PlistValue. Fails, saying which value and where it is, when the tree holds a
// node of no kind that a file can hold.
support::Result<PlistValue> plistValueOfNode(plist_t node);

// A new tree that holds value; empty when value is absent or holds an absent value, which no
// property list can express.
PlistNode plistNodeOfValue(const PlistValue& value);

// The strings of an array node. Fails, with the reason alone ("element 5 is an integer", "it is
// a dictionary"), when node is not an array or holds anything other than strings.
support::Result<std::vector<std::string>> stringsOfArrayNode(plist_t node);

// Calls visit with each key and value of a dictionary node, in the file's order, until visit
// answers false. True when every entry was visited.
bool visitDictionaryEntries(plist_t dictionary,
                            const std::function<bool(const char* key, plist_t value)>& visit);

// The text of a string node; empty when node is not a string.
std::optional<std::string> textOfStringNode(plist_t node);

}  // namespace velnor
