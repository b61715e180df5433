#include "DescriptorIo.h"

#include <unistd.h>

#include <cerrno>

namespace velnor::support {

bool readAll(int descriptor, std::string& contents) {
    char buffer[65536];
    for (;;) {
        const ssize_t got = ::read(descriptor, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return false;
        }
        if (got == 0) {
            return true;
        }
        contents.append(buffer, static_cast<std::size_t>(got));
    }
}

bool writeAll(int descriptor, std::string_view contents) {
    while (!contents.empty()) {
        const ssize_t written = ::write(descriptor, contents.data(), contents.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            if (written == 0) {
                errno = EIO;
            }
            return false;
        }
        contents.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

}  // namespace velnor::support
