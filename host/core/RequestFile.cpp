#include "RequestFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "DescriptorIo.h"
#include "PlistText.h"
#include "PropertyListFile.h"
#include "Terminal.h"
#include "UniqueFd.h"

namespace velnor::host {
namespace {

// "an array", "a string": the kind's name as a sentence needs it.
std::string withArticle(PlistValue::Kind kind) {
    std::string name = kindName(kind);
    bool vowel = name.find_first_of("aeiou") == 0;
    return (vowel ? "an " : "a ") + name;
}

// The bytes of the file, or of standard input for "-".
support::Result<std::string> readSource(const std::string& argument, const std::string& source) {
    const bool fromStandardInput = argument == kStandardInputArgument;
    support::UniqueFd file;
    if (!fromStandardInput) {
        file.reset(::openat(terminal().workingFolder, argument.c_str(), O_RDONLY | O_CLOEXEC));
        if (!file.valid()) {
            return support::couldNot("read the request", source, errno);
        }
    }
    std::string bytes;
    if (!support::readAll(fromStandardInput ? terminal().input : file.get(), bytes)) {
        return support::couldNot("read the request", source, errno);
    }
    return bytes;
}

}  // namespace

support::Result<PlistDictionary> requestFromBytes(std::string_view bytes,
                                                  const std::string& source) {
    support::Result<PlistValue> value = parsePropertyList(bytes);
    if (!value) {
        return support::couldNot("read the request", source, value.message(), EINVAL);
    }
    // Plug-ins take integers as signed 64-bit ones.
    if (std::optional<std::string> integer = findIntegerAboveSigned(*value)) {
        return support::couldNot("read the request", source, *integer, EINVAL);
    }
    // The plug-in stores request strings in its job file, which may be XML: a string that XML
    // cannot carry would come back otherwise, or leave the file unreadable.
    if (std::optional<std::string> uncarriable = findUncarriableText(*value, PlistFormat::Xml)) {
        return support::couldNot("read the request", source,
                                 *uncarriable + ", which a property list cannot carry exactly",
                                 EINVAL);
    }
    if (const PlistDictionary* request = value->asDictionary()) {
        return *request;
    }
    return support::couldNot(
        "read the request", source,
        "it holds " + withArticle(value->kind()) + " at its top level; a request is a dictionary",
        EINVAL);
}

support::Result<PlistDictionary> readRequest(const std::optional<std::string>& argument) {
    if (!argument) {
        return PlistDictionary();
    }
    const std::string source = *argument == kStandardInputArgument ? "standard input" : *argument;
    support::Result<std::string> bytes = readSource(*argument, source);
    if (!bytes) {
        return bytes.failure();
    }
    return requestFromBytes(*bytes, source);
}

}  // namespace velnor::host
