#include "TemporaryFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace velnor::support {
namespace {

constexpr mode_t kPrivateFileMode = 0600;
// Random bytes in a temporary name, two hexadecimal digits each.
constexpr std::size_t kRandomBytes = 3;
constexpr std::size_t kSuffixLength = 2 * kRandomBytes;
// How often a name that is taken is drawn again.
constexpr int kNameTries = 16;

std::string prefixFor(const std::string& finalName) {
    return "." + finalName + ".";
}

// A name for a temporary file of finalName that no one can guess.
Result<std::string> temporaryNameFor(const std::string& finalName) {
    unsigned char random[kRandomBytes];
    if (getrandom(random, sizeof random, 0) != sizeof random) {
        return Failure{errno, systemReason(errno)};
    }
    std::string name = prefixFor(finalName);
    for (unsigned char byte : random) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", byte);
        name += digits;
    }
    return name;
}

}  // namespace

Result<UniqueFd> createTemporaryFile(int folder, const std::string& finalName, std::string* name) {
    for (int attempt = 0; attempt < kNameTries; ++attempt) {
        auto drawn = temporaryNameFor(finalName);
        if (!drawn) {
            return drawn.failure();
        }
        *name = *drawn;
        UniqueFd file(openat(folder, name->c_str(),
                             O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                             kPrivateFileMode));
        if (file.valid()) {
            return file;
        }
        if (errno != EEXIST) {
            return Failure{errno, systemReason(errno)};
        }
    }
    return Failure{EEXIST, systemReason(EEXIST)};
}

void removeLeftTemporaries(int folder, const std::string& finalName) {
    const std::string prefix = prefixFor(finalName);
    DIR* listing = fdopendir(dup(folder));
    if (listing == nullptr) {
        return;
    }
    while (const dirent* entry = readdir(listing)) {
        const std::string_view name = entry->d_name;
        if (name.size() == prefix.size() + kSuffixLength && name.starts_with(prefix)) {
            unlinkat(folder, entry->d_name, 0);
        }
    }
    closedir(listing);
}

}  // namespace velnor::support
