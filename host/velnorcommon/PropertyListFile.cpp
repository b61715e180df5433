#include "PropertyListFile.h"

#include <stdexcept>

#include "HostLog.h"
#include "PlistNode.h"
#include "PlistText.h"
#include "WholeFile.h"

namespace velnor {
namespace {

// Files that did not exist before are created readable by everyone and writable by their owner,
// as job files are.
constexpr mode_t kNewFileMode = 0644;

void setError(std::string* error, std::string text) {
    if (error != nullptr) {
        *error = std::move(text);
    }
}

// The value's XML, or nothing when it holds an absent value and so has no XML.
std::optional<std::string> xmlOfValue(const PlistValue& value) {
    PlistNode node = plistNodeOfValue(value);
    if (!node) {
        return std::nullopt;
    }
    return xmlOfPlistNode(node.get());
}

}  // namespace

std::optional<PlistValue> parsePropertyList(std::string_view bytes, std::string* error) {
    PlistNode node = parsePlistNode(bytes, error);
    if (!node) {
        return std::nullopt;
    }
    return plistValueOfNode(node.get(), error);
}

std::optional<PlistValue> readPropertyListFile(const std::string& path, std::string* error) {
    PlistNode node = readPlistNodeFile(path, error);
    if (!node) {
        return std::nullopt;
    }
    std::string why;
    auto value = plistValueOfNode(node.get(), &why);
    if (!value) {
        setError(error, path + ": " + why);
    }
    return value;
}

std::optional<PlistDictionary> readPropertyListDictionary(const std::string& path,
                                                          std::string* error) {
    auto value = readPropertyListFile(path, error);
    if (!value) {
        return std::nullopt;
    }
    if (const auto* dictionary = value->asDictionary()) {
        return *dictionary;
    }
    setError(error, path + ": the top level is " + kindName(value->kind()) + ", not dictionary");
    return std::nullopt;
}

std::string toXmlPropertyList(const PlistValue& value) {
    auto xml = xmlOfValue(value);
    if (!xml) {
        throw std::invalid_argument("an absent value cannot be written as a property list");
    }
    return *xml;
}

namespace {

using WholeFileWriter = bool (*)(const std::string& path, std::string_view contents,
                                 mode_t newFileMode, std::string* error);

// Writes the value's XML with one of the whole-file writers, saying in the host's log why not.
bool writePropertyListWith(WholeFileWriter write, const std::string& path,
                           const PlistValue& value) {
    auto xml = xmlOfValue(value);
    if (!xml) {
        logHostFailure("cannot write " + path + ": the value holds an absent value");
        return false;
    }
    if (auto uncarriable = findUncarriableText(value)) {
        logHostFailure("could not write \"" + path + "\": " + *uncarriable +
                       ", which a property list cannot carry exactly");
        return false;
    }
    std::string error;
    if (!write(path, *xml, kNewFileMode, &error)) {
        logHostFailure(error);
        return false;
    }
    return true;
}

}  // namespace

bool writePropertyListAtomically(const std::string& path, const PlistValue& value) {
    return writePropertyListWith(&replaceWholeFileAtomically, path, value);
}

}  // namespace velnor
