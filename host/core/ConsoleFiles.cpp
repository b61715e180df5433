#include "ConsoleFiles.h"

#include <cerrno>

#include "RootFolder.h"

namespace velnor::host {
namespace {

// The first line of a file that root alone may have written.
support::Result<std::string> readRootsLine(const std::string& path, bool othersMayRead) {
    support::Result<std::string> contents = support::readRootsFile(path, othersMayRead);
    if (!contents) {
        return contents.failure();
    }
    return contents->substr(0, contents->find('\n'));
}

}  // namespace

support::Result<WebUrl> readWebUrl() {
    support::Result<std::string> token = readRootsLine(kWebTokenPath, false);
    if (!token) {
        return token.failure();
    }
    support::Result<std::string> address = readRootsLine(kWebAddressPath, true);
    if (!address) {
        return address.failure();
    }
    support::Result<std::string> fingerprint = readRootsLine(kWebFingerprintPath, true);
    if (!fingerprint && fingerprint.error() != ENOENT) {
        return fingerprint.failure();
    }
    const std::string scheme = fingerprint ? "https://" : "http://";
    return WebUrl{scheme + *address + "/?token=" + *token, fingerprint ? *fingerprint : ""};
}

}  // namespace velnor::host
