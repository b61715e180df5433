// Whether a password is an account's, as the administrator has configured the console's logins:
// through the PAM service "velnor", whose stack (the system's common ones by default) decides,
// so that lockouts after failures, second factors and expired accounts count as they do for
// every other login of the machine.
#pragma once

#include <sys/types.h>

#include <string>

#include "Result.h"

namespace velnor::host {

// The PAM service that the console's logins go through: /etc/pam.d/velnor.
inline constexpr const char* kPamService = "velnor";

// The account's uid when PAM accepts password for it, typed from remoteHost, and the account may
// log in now; else why not, in PAM's words. Blocks for as long as the stack takes (a wrong
// password costs its configured delay): call it where nothing else waits on the caller.
support::Result<uid_t> checkPassword(const std::string& account, const std::string& password,
                                     const std::string& remoteHost);

}  // namespace velnor::host
