#include "PasswordCheck.h"

#include <security/pam_appl.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Accounts.h"

namespace velnor::host {
namespace {

// The one thing the console can answer a stack's prompts with is the password typed on its
// login page: every prompt that hides what is typed gets it, and a module that asks for anything
// else (a second factor's code on a page that has no field for it) is refused.
int answerPrompts(int count, const struct pam_message** messages, struct pam_response** responses,
                  void* password) {
    if (count <= 0) {
        return PAM_CONV_ERR;
    }
    auto* answers = static_cast<pam_response*>(
        std::calloc(static_cast<std::size_t>(count), sizeof(pam_response)));
    if (answers == nullptr) {
        return PAM_BUF_ERR;
    }
    for (int index = 0; index < count; ++index) {
        switch (messages[index]->msg_style) {
            case PAM_PROMPT_ECHO_OFF:
                answers[index].resp = ::strdup(static_cast<const std::string*>(password)->c_str());
                if (answers[index].resp == nullptr) {
                    break;
                }
                continue;
            case PAM_ERROR_MSG:
            case PAM_TEXT_INFO:
                continue;
            default:
                break;
        }
        for (int done = 0; done < index; ++done) {
            std::free(answers[done].resp);
        }
        std::free(answers);
        return PAM_CONV_ERR;
    }
    *responses = answers;
    return PAM_SUCCESS;
}

support::Failure refused(pam_handle_t* handle, int status, const std::string& account) {
    return support::Failure{EACCES,
                            "PAM refused \"" + account + "\": " + ::pam_strerror(handle, status)};
}

support::Result<uid_t> uidOf(const std::string& account) {
    support::Result<support::UserAccount> user = support::lookUpUser(account);
    if (!user) {
        return user.failure();
    }
    return user->uid;
}

}  // namespace

support::Result<uid_t> checkPassword(const std::string& account, const std::string& password,
                                     const std::string& remoteHost) {
    if (account.empty() || password.empty()) {
        return support::Failure{EINVAL, "an account and a password are needed"};
    }
    std::string typed = password;
    const pam_conv conversation{answerPrompts, &typed};
    pam_handle_t* handle = nullptr;
    int status = ::pam_start(kPamService, account.c_str(), &conversation, &handle);
    if (status != PAM_SUCCESS) {
        return support::Failure{
            EIO, std::string("could not start PAM: ") + ::pam_strerror(handle, status)};
    }
    ::pam_set_item(handle, PAM_RHOST, remoteHost.c_str());
    // An empty password is never one: the console is reachable from the network.
    status = ::pam_authenticate(handle, PAM_DISALLOW_NULL_AUTHTOK);
    if (status == PAM_SUCCESS) {
        // Expired accounts and passwords, and the stack's own account rules (faillock's count).
        status = ::pam_acct_mgmt(handle, PAM_DISALLOW_NULL_AUTHTOK);
    }
    support::Result<uid_t> answer =
        status == PAM_SUCCESS ? uidOf(account) : refused(handle, status, account);
    std::fill(typed.begin(), typed.end(), '\0');
    ::pam_end(handle, status);
    return answer;
}

}  // namespace velnor::host
