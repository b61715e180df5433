#include "SafePath.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <deque>
#include <vector>

#include "Accounts.h"
#include "DescriptorIo.h"
#include "PathNames.h"
#include "TemporaryFiles.h"

namespace velnor::support {
namespace {

// As many links as the kernel follows in one path before it answers ELOOP.
constexpr int kMostLinks = 40;
// New folders are the creator's alone until their attributes are set.
constexpr mode_t kPrivateFolderMode = 0700;
// Without attributes a folder gets what the umask leaves of everything.
constexpr mode_t kDefaultFolderMode = 0777;
// Permission bits, set-id and sticky bits: the part of a mode that chmod sets.
constexpr mode_t kPermissionBits = 07777;
constexpr mode_t kWritableByOthers = S_IWGRP | S_IWOTH;

std::string quoted(std::string_view text) {
    std::string result = "\"";
    return result.append(text).append("\"");
}

// Why the entry is not root's alone, or nothing when it is.
std::optional<std::string> whyNotRootsAlone(const struct stat& status, const std::string& shown) {
    if (status.st_uid != 0) {
        return quoted(shown) + " is owned by an account other than root";
    }
    if ((status.st_mode & kWritableByOthers) != 0) {
        return quoted(shown) + " is writable by an account other than root";
    }
    return std::nullopt;
}

std::deque<std::string> namesOf(std::string_view path) {
    std::deque<std::string> names;
    std::size_t start = 0;
    while (start < path.size()) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        const std::string_view name = path.substr(start, end - start);
        if (!name.empty() && name != ".") {
            names.emplace_back(name);
        }
        start = end + 1;
    }
    return names;
}

Result<std::string> linkTarget(int linkDescriptor) {
    std::string target(256, '\0');
    for (;;) {
        // An O_PATH descriptor of the link itself with an empty name reads that very link.
        const ssize_t length = readlinkat(linkDescriptor, "", target.data(), target.size());
        if (length < 0) {
            return Failure{errno, systemReason(errno)};
        }
        if (static_cast<std::size_t>(length) < target.size()) {
            target.resize(static_cast<std::size_t>(length));
            return target;
        }
        target.resize(target.size() * 2);
    }
}

// Owner and group first, then the permissions, on an open folder: changing the owner may
// clear the set-id bits that the permissions then set.
Status giveAttributes(int descriptor, const std::string& shown, const Attributes& attributes) {
    if (fchown(descriptor, attributes.owner, attributes.group) != 0) {
        return ownerFailure(shown, attributes, systemReason(errno), errno);
    }
    if (fchmod(descriptor, attributes.permissions & kPermissionBits) != 0) {
        return permissionsFailure(shown, attributes.permissions, errno);
    }
    return {};
}

// A folder that a walk created, to be removed again when the call fails.
struct CreatedFolder {
    UniqueFd parent;
    std::string name;
};

// One resolution of a path, name by name, from "/" or the working folder. Keeps a descriptor
// of the folder reached so far and the path that leads to it as the messages show it.
class Walk {
  public:
    struct Creation {
        const std::optional<Attributes>* attributes;
        std::vector<CreatedFolder>* created;
    };

    // creation, when given, makes the walk create every missing folder; untrusted, when given,
    // receives the first reason why an entry on the way is not root's alone.
    Walk(std::string_view verb, const std::string& path, std::optional<Creation> creation,
         std::string* untrusted)
        : verb_(verb), path_(path), creation_(creation), untrusted_(untrusted) {}

    // The descriptor of what the path names. A failure names the path, or in a creation the
    // folder that could not be made: `could not VERB "PATH": REASON`.
    Result<UniqueFd> run() {
        if (path_.empty()) {
            return fail(path_, ENOENT).failure();
        }
        if (auto started = startAt(path_.front() == '/' ? "/" : "."); !started) {
            return started.failure();
        }
        names_ = namesOf(path_);
        while (!names_.empty()) {
            if (auto stepped = step(); !stepped) {
                return stepped.failure();
            }
        }
        return std::move(current_);
    }

  private:
    Status fail(const std::string& where, int error) {
        return couldNot(verb_, creation_ ? where : path_, error);
    }

    Status startAt(const char* top) {
        current_.reset(open(top, O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!current_.valid()) {
            return fail(top, errno);
        }
        shown_ = top[0] == '/' ? "/" : "";
        return noteTrust(current_.get(), top);
    }

    std::string below(const std::string& name) const {
        return shown_.empty() ? name : joinedPath(shown_, name);
    }

    Status noteTrust(int descriptor, const std::string& shown) {
        if (untrusted_ == nullptr || !untrusted_->empty()) {
            return {};
        }
        struct stat status;
        if (fstat(descriptor, &status) != 0) {
            return fail(shown, errno);
        }
        *untrusted_ = whyNotRootsAlone(status, shown).value_or("");
        return {};
    }

    Status step() {
        std::string name = std::move(names_.front());
        names_.pop_front();
        const bool named = namedByLink_ > 0;
        namedByLink_ -= named ? 1 : 0;
        const std::string here = below(name);
        if (name == "..") {
            return climb();
        }
        UniqueFd next(openat(current_.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (!next.valid()) {
            if (errno != ENOENT || !creation_) {
                return fail(here, errno);
            }
            // mkdir through a dangling link fails; a walk that creates does the same.
            return named ? fail(lastLink_, EEXIST) : createFolder(name, here);
        }
        struct stat status;
        if (fstat(next.get(), &status) != 0) {
            return fail(here, errno);
        }
        if (S_ISLNK(status.st_mode)) {
            return followLink(next.get(), here);
        }
        if (!S_ISDIR(status.st_mode) && !names_.empty()) {
            // The first folder that cannot be made is the one that would go under the file.
            return fail(creation_ ? joinedPath(here, names_.front()) : here, ENOTDIR);
        }
        if (!S_ISDIR(status.st_mode) && creation_) {
            return fail(here, EEXIST);
        }
        if (untrusted_ != nullptr && untrusted_->empty()) {
            *untrusted_ = whyNotRootsAlone(status, here).value_or("");
        }
        current_ = std::move(next);
        shown_ = here;
        return {};
    }

    Status climb() {
        UniqueFd parent(openat(current_.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!parent.valid()) {
            return fail(below(".."), errno);
        }
        current_ = std::move(parent);
        shown_ = shown_.empty() ? ".." : folderOf(shown_);
        return noteTrust(current_.get(), shown_);
    }

    Status followLink(int link, const std::string& here) {
        struct stat holder;
        if (fstat(current_.get(), &holder) != 0) {
            return fail(shown_, errno);
        }
        if (auto why = whyNotRootsAlone(holder, shown_.empty() ? "." : shown_)) {
            return couldNot(verb_, path_,
                            "cannot follow the symbolic link " + quoted(here) + ": " + *why, ELOOP);
        }
        if (++links_ > kMostLinks) {
            return fail(here, ELOOP);
        }
        auto target = linkTarget(link);
        if (!target) {
            return fail(here, target.error());
        }
        if (target->empty()) {
            return fail(here, ENOENT);
        }
        if (target->front() == '/') {
            if (auto restarted = startAt("/"); !restarted) {
                return restarted;
            }
        }
        const auto names = namesOf(*target);
        names_.insert(names_.begin(), names.begin(), names.end());
        namedByLink_ += names.size();
        lastLink_ = here;
        return {};
    }

    Status createFolder(const std::string& name, const std::string& here) {
        const auto& attributes = *creation_->attributes;
        if (mkdirat(current_.get(), name.c_str(),
                    attributes ? kPrivateFolderMode : kDefaultFolderMode) != 0) {
            if (errno != EEXIST) {
                return fail(here, errno);
            }
            // Made by someone else meanwhile: walk on as if it had been there.
            names_.push_front(name);
            return {};
        }
        creation_->created->push_back({UniqueFd(fcntl(current_.get(), F_DUPFD_CLOEXEC, 0)), name});
        if (!attributes) {
            names_.push_front(name);
            return {};
        }
        // Through a descriptor, so that a link put in place of the new folder is not followed.
        UniqueFd made(
            openat(current_.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!made.valid()) {
            return ownerFailure(here, *attributes, systemReason(errno), errno);
        }
        if (auto given = giveAttributes(made.get(), here, *attributes); !given) {
            return given;
        }
        current_ = std::move(made);
        shown_ = here;
        return {};
    }

    std::string_view verb_;
    const std::string& path_;
    std::optional<Creation> creation_;
    std::string* untrusted_;
    UniqueFd current_;
    std::string shown_;
    std::deque<std::string> names_;
    std::size_t namedByLink_ = 0;  // how many of the first names come from a link's target
    std::string lastLink_;
    int links_ = 0;
};

// Removes the folders that a failed call created, deepest first, so that it leaves nothing
// behind. A folder that someone else has filled meanwhile stays.
void removeFolders(const std::vector<CreatedFolder>& created) {
    for (auto folder = created.rbegin(); folder != created.rend(); ++folder) {
        unlinkat(folder->parent.get(), folder->name.c_str(), AT_REMOVEDIR);
    }
}

std::string procPath(int descriptor) {
    return "/proc/self/fd/" + std::to_string(descriptor);
}

// Gives the open file its attributes and contents and makes them durable.
Status fillFile(UniqueFd& file, const std::string& path, std::string_view contents,
                const Attributes& attributes) {
    if (auto given = giveAttributes(file.get(), path, attributes); !given) {
        return given;
    }
    if (!writeAll(file.get(), contents) || fsync(file.get()) != 0 || file.close() != 0) {
        return couldNot("write", path, errno);
    }
    return {};
}

}  // namespace

Result<Attributes> resolveAttributes(mode_t permissions, const std::string& owner,
                                     const std::string& group) {
    auto user = lookUpUser(owner);
    if (!user) {
        return user.failure();
    }
    auto groupId = lookUpGroup(group);
    if (!groupId) {
        return groupId.failure();
    }
    return Attributes{permissions, user->uid, *groupId, owner + ":" + group};
}

Result<UniqueFd> openSafely(const std::string& path, std::string* untrusted) {
    if (untrusted != nullptr) {
        untrusted->clear();
    }
    return Walk("open", path, std::nullopt, untrusted).run();
}

bool isFolder(const std::string& path) {
    Result<UniqueFd> opened = openSafely(path);
    struct stat status;
    return opened && fstat(opened->get(), &status) == 0 && S_ISDIR(status.st_mode);
}

Result<Placement> placeSafely(const std::string& path) {
    std::string current = path;
    for (int links = 0;; ++links) {
        std::string name = lastNameOf(current);
        if (name == "/" || name == "." || name == "..") {
            return couldNot("open", path, EISDIR);
        }
        const std::string holder = folderOf(current);
        auto folder = openSafely(holder);
        if (!folder) {
            return folder.failure();
        }
        UniqueFd entry(openat(folder->get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat status;
        if (!entry.valid() && errno != ENOENT) {
            return couldNot("open", current, errno);
        }
        if (entry.valid() && fstat(entry.get(), &status) != 0) {
            return couldNot("open", current, errno);
        }
        if (!entry.valid() || !S_ISLNK(status.st_mode)) {
            return Placement{std::move(*folder), std::move(name), std::move(current)};
        }
        // The same rule as for a link on the way: followed only where nobody but root could
        // have put it.
        struct stat holderStatus;
        if (fstat(folder->get(), &holderStatus) != 0) {
            return couldNot("open", holder, errno);
        }
        if (auto why = whyNotRootsAlone(holderStatus, holder)) {
            return couldNot("open", path,
                            "cannot follow the symbolic link " + quoted(current) + ": " + *why,
                            ELOOP);
        }
        auto target = linkTarget(entry.get());
        if (links == kMostLinks || !target || target->empty()) {
            return couldNot("open", current,
                            links == kMostLinks ? ELOOP
                            : !target           ? target.error()
                                                : ENOENT);
        }
        current = target->front() == '/' ? *target : joinedPath(holder, *target);
    }
}

Result<UniqueFd> reopen(int pathDescriptor, int flags, const std::string& shownPath) {
    // The descriptor's entry in /proc leads to the very file it holds, whatever has become of
    // the path since.
    UniqueFd file(open(procPath(pathDescriptor).c_str(), flags | O_CLOEXEC));
    if (!file.valid()) {
        return couldNot("open", shownPath, errno);
    }
    return file;
}

Status createFolders(const std::string& path, const std::optional<Attributes>& attributes) {
    std::vector<CreatedFolder> created;
    auto made = Walk("create folder", path, Walk::Creation{&attributes, &created}, nullptr).run();
    if (made) {
        return {};
    }
    removeFolders(created);
    return made.failure();
}

Status setAttributes(const std::string& path, const Attributes& attributes) {
    auto target = openSafely(path);
    if (!target) {
        return target.failure();
    }
    if (fchownat(target->get(), "", attributes.owner, attributes.group, AT_EMPTY_PATH) != 0) {
        return ownerFailure(path, attributes, systemReason(errno), errno);
    }
    // A path descriptor cannot be given a mode itself; its entry in /proc is the same file.
    if (chmod(procPath(target->get()).c_str(), attributes.permissions & kPermissionBits) != 0) {
        return permissionsFailure(path, attributes.permissions, errno);
    }
    return {};
}

Status replaceFile(const std::string& path, std::string_view contents,
                   const Attributes& attributes) {
    const std::string name = lastNameOf(path);
    if (name == "/" || name == "." || name == "..") {
        return couldNot("create file", path, systemReason(EISDIR), EISDIR);
    }
    auto folder = openSafely(folderOf(path));
    if (!folder) {
        return folder.failure();
    }
    ReplacementFile file(folder->get(), name, folderOf(path));
    if (!file.created()) {
        return couldNot("create file", joinedPath(folderOf(path), file.temporaryName()),
                        file.created().message(), file.created().error());
    }
    Status filled = fillFile(file.file(), path, contents, attributes);
    if (filled && !file.renameIntoPlace()) {
        filled = couldNot("replace", path, errno);
    }
    return filled;
}

Failure ownerFailure(const std::string& path, const Attributes& attributes, std::string_view reason,
                     int error) {
    std::string message = "could not set owner of " + quoted(path) + " to ";
    message.append(attributes.shownOwnership).append(": ").append(reason);
    return {error, std::move(message)};
}

Failure permissionsFailure(const std::string& path, mode_t permissions, int error) {
    char octal[16];
    std::snprintf(octal, sizeof octal, "%04o",
                  static_cast<unsigned>(permissions & kPermissionBits));
    return {error, "could not set permissions of " + quoted(path) + " to " + octal + ": " +
                       systemReason(error)};
}

}  // namespace velnor::support
