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

}  // namespace

support::Result<PlistValue> parsePropertyList(std::string_view bytes) {
    auto node = parsePlistNode(bytes);
    if (!node) {
        return node.failure();
    }
    return plistValueOfNode(node->get());
}

support::Result<PlistValue> readPropertyListFile(const std::string& path) {
    auto file = readPlistFile(path);
    if (!file) {
        return file.failure();
    }
    auto value = plistValueOfNode(file->root.get());
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
    PlistNode node = plistNodeOfValue(value);
    if (!node) {
        throw std::invalid_argument("an absent value cannot be written as a property list");
    }
    return xmlOfPlistNode(node.get());
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

// The format of the file that a write replaces, which the write keeps; XML for a new file.
support::Result<PlistFormat> formatToKeep(const std::string& path) {
    auto bytes = readWholeFileSafely(path);
    if (!bytes) {
        return bytes.error() == ENOENT ? support::Result<PlistFormat>(PlistFormat::Xml)
                                       : bytes.failure();
    }
    return formatOfPlistBytes(*bytes);
}

// The bytes that put value at path, in the format of the file there. A zero byte in a string
// is refused before the value becomes a libplist tree, which would cut the string there.
support::Result<std::string> bytesToWrite(const std::string& path, const PlistValue& value) {
    auto format = formatToKeep(path);
    if (!format) {
        return format.failure();
    }
    PlistNode node = plistNodeOfValue(value);
    if (!node) {
        return support::couldNot("write", path, "the value holds an absent value", EINVAL);
    }
    if (auto uncarriable = findUncarriableText(value, *format)) {
        return support::couldNot(
            "write", path,
            *uncarriable + ", which " + formatName(*format) + " cannot carry exactly", EINVAL);
    }
    auto bytes = exactBytesOfPlistNode(node.get(), *format);
    if (!bytes) {
        return support::couldNot("write", path, bytes.message(), bytes.error());
    }
    return bytes;
}

}  // namespace

support::Status writePropertyListAtomically(const std::string& path, const PlistValue& value) {
    auto bytes = bytesToWrite(path, value);
    support::Status written =
        bytes ? replaceWholeFileAtomically(path, *bytes, kNewFileMode) : bytes.failure();
    if (!written) {
        logHostFailure(written.message());
    }
    return written;
}

}  // namespace velnor
