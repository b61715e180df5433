#include "ConsoleFiles.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "DescriptorIo.h"
#include "SafePath.h"

namespace velnor::host {
namespace {

// The first line of a file that root alone may have written, and others may not read unless
// others may read it is allowed.
support::Result<std::string> readRootsLine(const std::string& path, bool othersMayRead) {
    std::string untrusted;
    support::Result<support::UniqueFd> opened = support::openSafely(path, &untrusted);
    if (!opened) {
        return opened.failure();
    }
    struct stat status;
    if (!untrusted.empty() || fstat(opened->get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_uid != 0 || (status.st_mode & (othersMayRead ? 022 : 077)) != 0) {
        return support::couldNot("trust", path,
                                 untrusted.empty() ? "it is not a file of root's alone" : untrusted,
                                 EPERM);
    }
    support::Result<support::UniqueFd> file =
        support::reopen(opened->get(), O_RDONLY | O_CLOEXEC, path);
    if (!file) {
        return file.failure();
    }
    std::string contents;
    if (!support::readAll(file->get(), contents)) {
        return support::couldNot("read", path, errno);
    }
    return contents.substr(0, contents.find('\n'));
}

}  // namespace

support::Result<std::string> readWebUrl() {
    support::Result<std::string> token = readRootsLine(kWebTokenPath, false);
    if (!token) {
        return token.failure();
    }
    support::Result<std::string> address = readRootsLine(kWebAddressPath, true);
    if (!address) {
        return address.failure();
    }
    return "http://" + *address + "/?token=" + *token;
}

}  // namespace velnor::host
