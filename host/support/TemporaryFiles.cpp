#include "TemporaryFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "SafePath.h"

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

ReplacementFile::ReplacementFile(int folder, std::string finalName, const std::string& shownFolder)
    : finalName_(std::move(finalName)) {
    // A path descriptor can neither be listed nor flushed.
    auto listed = reopen(folder, O_RDONLY | O_DIRECTORY, shownFolder);
    if (!listed) {
        created_ = listed.failure();
        return;
    }
    folder_ = std::move(*listed);
    removeLeftTemporaries(folder_.get(), finalName_);
    created_ = createTemporaryFile(folder_.get(), finalName_, &temporary_);
}

ReplacementFile::~ReplacementFile() {
    if (created_ && !renamed_) {
        unlinkat(folder_.get(), temporary_.c_str(), 0);
    }
}

bool ReplacementFile::renameIntoPlace() {
    renamed_ = renameat(folder_.get(), temporary_.c_str(), folder_.get(), finalName_.c_str()) == 0;
    if (renamed_) {
        // A failure here changes nothing that a reader could see, so it is not reported.
        fsync(folder_.get());
    }
    return renamed_;
}

}  // namespace velnor::support
