#include "Accounts.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace velnor::support {
namespace {

// Where the lookup buffer stops growing: no account record is this large.
constexpr std::size_t kLargestAccountRecord = 1 << 24;

// Calls getpwnam_r or getgrnam_r with a buffer that grows until the record fits, and hands
// the entry found to take. Fails when the name is unknown or the lookup failed.
template <typename Entry, typename Take>
Status lookUp(int (*lookup)(const char*, Entry*, char*, std::size_t, Entry**), const char* what,
              const std::string& name, Take take) {
    std::vector<char> storage(16384);
    for (;;) {
        Entry entry{};
        Entry* found = nullptr;
        const int error = lookup(name.c_str(), &entry, storage.data(), storage.size(), &found);
        if (error == ERANGE && storage.size() < kLargestAccountRecord) {
            storage.resize(storage.size() * 2);
            continue;
        }
        if (found != nullptr) {
            take(*found);
            return {};
        }
        // The name service reports an unknown name by an empty result, but some back ends
        // report it by one of these errors instead.
        if (error == 0 || error == ENOENT || error == ESRCH || error == EBADF || error == EPERM) {
            return couldNot(std::string("look up ") + what, name, std::string("no such ") + what);
        }
        return couldNot(std::string("look up ") + what, name, error);
    }
}

}  // namespace

Result<UserAccount> lookUpUser(const std::string& name) {
    UserAccount account{};
    auto status = lookUp(getpwnam_r, "account", name, [&](const passwd& entry) {
        account = {entry.pw_uid, entry.pw_gid, entry.pw_dir, entry.pw_shell};
    });
    if (!status) {
        return status.failure();
    }
    return account;
}

Result<gid_t> lookUpGroup(const std::string& name) {
    gid_t id = 0;
    auto status = lookUp(getgrnam_r, "group", name, [&](const group& entry) { id = entry.gr_gid; });
    if (!status) {
        return status.failure();
    }
    return id;
}

std::string accountNameOf(uid_t uid) {
    long suggested = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(suggested > 0 ? static_cast<std::size_t>(suggested) : 4096);
    struct passwd entry;
    struct passwd* found = nullptr;
    if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
        return found->pw_name;
    }
    return std::to_string(uid);
}

}  // namespace velnor::support
