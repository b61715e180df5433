// Looking accounts and groups up by name, for the host library, the plug-in and the host alike.
#pragma once

#include <sys/types.h>

#include <string>

#include "Result.h"

namespace velnor::support {

struct UserAccount {
    uid_t uid;
    gid_t gid;  // the account's own group
    std::string home;
    std::string shell;
};

// The account called name. Fails with `could not look up account "NAME": no such account`
// when there is none, or with the name service's reason when the lookup itself failed.
Result<UserAccount> lookUpUser(const std::string& name);

// The id of the group called name; fails the same way as lookUpUser.
Result<gid_t> lookUpGroup(const std::string& name);

// The name of uid's account, or uid in decimal when it has none (or the name service fails).
std::string accountNameOf(uid_t uid);

}  // namespace velnor::support
