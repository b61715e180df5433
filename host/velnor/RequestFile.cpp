#include "RequestFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "PlistText.h"
#include "PropertyListFile.h"

namespace velnor::host {
namespace {

constexpr std::size_t kReadChunk = 64 * 1024;

// "an array", "a string": the kind's name as a sentence needs it.
std::string withArticle(PlistValue::Kind kind) {
    std::string name = kindName(kind);
    bool vowel = name.find_first_of("aeiou") == 0;
    return (vowel ? "an " : "a ") + name;
}

// Everything that can be read from the descriptor; false with errno set on a read error.
bool readAll(int descriptor, std::string& bytes) {
    char chunk[kReadChunk];
    for (;;) {
        ssize_t count = read(descriptor, chunk, sizeof chunk);
        if (count > 0) {
            bytes.append(chunk, static_cast<std::size_t>(count));
        } else if (count == 0) {
            return true;
        } else if (errno != EINTR) {
            return false;
        }
    }
}

// The bytes of the file, or of standard input for "-"; nothing with the reason in error.
std::optional<std::string> readSource(const std::string& argument, const std::string& source,
                                      std::string* error) {
    bool fromStandardInput = argument == kStandardInputArgument;
    int descriptor =
        fromStandardInput ? STDIN_FILENO : open(argument.c_str(), O_RDONLY | O_CLOEXEC);
    std::string bytes;
    bool complete = descriptor >= 0 && readAll(descriptor, bytes);
    int readError = errno;
    if (!fromStandardInput && descriptor >= 0) {
        close(descriptor);
    }
    if (!complete) {
        *error = "cannot read " + source + ": " + std::strerror(readError);
        return std::nullopt;
    }
    return bytes;
}

}  // namespace

std::optional<PlistDictionary> requestFromBytes(std::string_view bytes, const std::string& source,
                                                std::string* error) {
    std::string parseError;
    std::optional<PlistValue> value = parsePropertyList(bytes, &parseError);
    if (!value) {
        *error = source + " is not a property list";
        if (!parseError.empty()) {
            *error += ": " + parseError;
        }
        return std::nullopt;
    }
    // The plug-in stores request strings in its job file, which is XML: a string that XML
    // cannot carry would come back otherwise, or leave the file unreadable.
    if (std::optional<std::string> uncarriable = findUncarriableText(*value)) {
        *error = source + " is refused: " + *uncarriable +
                 ", which a property list cannot carry exactly";
        return std::nullopt;
    }
    if (const PlistDictionary* request = value->asDictionary()) {
        return *request;
    }
    *error = source + " holds " + withArticle(value->kind()) +
             " at its top level; a request is a dictionary";
    return std::nullopt;
}

std::optional<PlistDictionary> readRequest(const std::optional<std::string>& argument,
                                           std::string* error) {
    if (!argument) {
        return PlistDictionary();
    }
    std::string source = *argument == kStandardInputArgument ? "the request on standard input"
                                                             : "the request file " + *argument;
    std::optional<std::string> bytes = readSource(*argument, source, error);
    if (!bytes) {
        return std::nullopt;
    }
    return requestFromBytes(*bytes, source, error);
}

}  // namespace velnor::host
