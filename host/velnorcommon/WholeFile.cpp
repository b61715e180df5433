#include "WholeFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

#include "DescriptorIo.h"
#include "PathNames.h"
#include "UniqueFd.h"

namespace velnor {
namespace {

// The file that a write to path really replaces: the target of a symbolic link, so that the
// link stays a link. A path that does not resolve (nothing there yet) is its own target.
std::string replacementTarget(const std::string& path) {
    std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr),
                                                         &std::free);
    return resolved ? std::string(resolved.get()) : path;
}

// What mkostemp puts in place of "XXXXXX".
constexpr std::size_t kTemporarySuffixLength = 6;

// A temporary file that is removed again unless it has been renamed into place.
class TemporaryFile {
  public:
    explicit TemporaryFile(const std::string& target)
        : path_(support::joinedPath(support::folderOf(target),
                                    "." + support::lastNameOf(target) + ".XXXXXX")) {
        fd_.reset(::mkostemp(path_.data(), O_CLOEXEC));
        created_ = fd_.valid();
    }
    ~TemporaryFile() {
        // Without a descriptor from mkostemp the name may be someone else's file.
        if (created_ && !renamed_) {
            ::unlink(path_.c_str());
        }
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    bool created() const { return created_; }
    int fd() const { return fd_.get(); }
    const std::string& path() const { return path_; }
    int close() { return fd_.close(); }
    void markRenamed() { renamed_ = true; }

  private:
    std::string path_;
    support::UniqueFd fd_;
    bool created_ = false;
    bool renamed_ = false;
};

// Gives the temporary file the owner and mode of the file it replaces. The owner comes first:
// changing it clears the set-user-id and set-group-id bits, which the mode then restores.
bool takeOverAttributes(const TemporaryFile& file, const struct stat* old, mode_t newFileMode) {
    if (old != nullptr && (old->st_uid != ::geteuid() || old->st_gid != ::getegid()) &&
        ::fchown(file.fd(), old->st_uid, old->st_gid) != 0) {
        return false;
    }
    mode_t mode = old != nullptr ? (old->st_mode & 07777) : newFileMode;
    return ::fchmod(file.fd(), mode) == 0;
}

// Removes the temporary files that writes of target killed before their rename left behind.
// Each write has its own name, so two writers never share a file: a write that is not under
// the host lock and loses its temporary file here fails whole, and never renames another's
// half-written file into place.
void removeLeftTemporaries(const std::string& target) {
    const std::string prefix = "." + support::lastNameOf(target) + ".";
    support::UniqueFd folder(
        ::open(support::folderOf(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    DIR* listing = folder.valid() ? ::fdopendir(::dup(folder.get())) : nullptr;
    if (listing == nullptr) {
        return;
    }
    while (const struct dirent* entry = ::readdir(listing)) {
        const std::string_view name = entry->d_name;
        // A folder of that name stays: unlinkat without AT_REMOVEDIR refuses it.
        if (name.size() == prefix.size() + kTemporarySuffixLength && name.starts_with(prefix)) {
            ::unlinkat(folder.get(), entry->d_name, 0);
        }
    }
    ::closedir(listing);
}

// Makes the rename itself durable. A failure here changes nothing that a reader could see, so
// it is not reported.
void flushFolder(const std::string& folder) {
    support::UniqueFd fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.valid()) {
        ::fsync(fd.get());
    }
}

}  // namespace

support::Result<std::string> readWholeFile(const std::string& path) {
    support::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        return support::couldNot("open", path, errno);
    }
    struct stat status {};
    if (::fstat(fd.get(), &status) != 0) {
        return support::couldNot("examine", path, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return support::couldNot("read", path, S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    }
    std::string contents;
    if (!support::readAll(fd.get(), contents)) {
        return support::couldNot("read", path, errno);
    }
    return contents;
}

support::Status replaceWholeFileAtomically(const std::string& path, std::string_view contents,
                                           mode_t newFileMode) {
    const std::string target = replacementTarget(path);
    struct stat old {};
    const bool replacing = ::stat(target.c_str(), &old) == 0;
    if (!replacing && errno != ENOENT) {
        return support::couldNot("examine", target, errno);
    }
    if (replacing && !S_ISREG(old.st_mode)) {
        return support::couldNot("replace", target, S_ISDIR(old.st_mode) ? EISDIR : EINVAL);
    }

    removeLeftTemporaries(target);
    TemporaryFile temporary(target);
    if (!temporary.created()) {
        return support::couldNot("create a temporary file beside", target, errno);
    }
    if (!support::writeAll(temporary.fd(), contents)) {
        return support::couldNot("write", temporary.path(), errno);
    }
    if (!takeOverAttributes(temporary, replacing ? &old : nullptr, newFileMode)) {
        return support::couldNot("set the owner and mode of", temporary.path(), errno);
    }
    if (::fsync(temporary.fd()) != 0 || temporary.close() != 0) {
        return support::couldNot("flush", temporary.path(), errno);
    }
    if (::rename(temporary.path().c_str(), target.c_str()) != 0) {
        return support::couldNot("rename a temporary file over", target, errno);
    }
    temporary.markRenamed();
    flushFolder(support::folderOf(target));
    return {};
}

}  // namespace velnor
