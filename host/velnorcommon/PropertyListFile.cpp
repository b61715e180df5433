#include "PropertyListFile.h"

#include <cerrno>
#include <cstdint>
#include <memory>
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

// The value's XML, or nothing when it holds an absent value and so has no XML.
std::optional<std::string> xmlOfValue(const PlistValue& value) {
    PlistNode node = plistNodeOfValue(value);
    if (!node) {
        return std::nullopt;
    }
    return xmlOfPlistNode(node.get());
}

}  // namespace

support::Result<PlistValue> parsePropertyList(std::string_view bytes) {
    auto node = parsePlistNode(bytes);
    if (!node) {
        return node.failure();
    }
    return plistValueOfNode(node->get());
}

support::Result<PlistValue> readPropertyListFile(const std::string& path) {
    auto node = readPlistNodeFile(path);
    if (!node) {
        return node.failure();
    }
    auto value = plistValueOfNode(node->get());
    if (!value) {
        return support::couldNot("read", path, value.message(), value.error());
    }
    return value;
}

support::Result<PlistDictionary> readPropertyListDictionary(const std::string& path) {
    auto value = readPropertyListFile(path);
    if (!value) {
        return value.failure();
    }
    if (const PlistDictionary* dictionary = value->asDictionary()) {
        return *dictionary;
    }
    return support::couldNot(
        "read", path,
        std::string("the top level is ") + kindName(value->kind()) + ", not dictionary", EINVAL);
}

std::string toXmlPropertyList(const PlistValue& value) {
    auto xml = xmlOfValue(value);
    if (!xml) {
        throw std::invalid_argument("an absent value cannot be written as a property list");
    }
    return *xml;
}

std::string toBinaryPropertyList(const PlistValue& value) {
    PlistNode node = plistNodeOfValue(value);
    if (!node) {
        throw std::invalid_argument("an absent value cannot be written as a property list");
    }
    char* bytes = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(static_cast<plist_t>(node.get()), &bytes, &length);
    std::unique_ptr<char, decltype(&plist_to_bin_free)> owned(bytes, &plist_to_bin_free);
    if (bytes == nullptr) {
        throw std::runtime_error("libplist could not write a binary property list");
    }
    return std::string(bytes, length);
}

namespace {

// Why the value cannot be written to path as a property list, when it cannot.
support::Status checkWritable(const std::string& path, const PlistValue& value) {
    if (auto uncarriable = findUncarriableText(value)) {
        return support::couldNot(
            "write", path, *uncarriable + ", which a property list cannot carry exactly", EINVAL);
    }
    return {};
}

}  // namespace

support::Status writePropertyListAtomically(const std::string& path, const PlistValue& value) {
    auto xml = xmlOfValue(value);
    support::Status written =
        !xml ? support::couldNot("write", path, "the value holds an absent value", EINVAL)
             : checkWritable(path, value);
    if (written) {
        written = replaceWholeFileAtomically(path, *xml, kNewFileMode);
    }
    if (!written) {
        logHostFailure(written.message());
    }
    return written;
}

}  // namespace velnor
