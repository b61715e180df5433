// Running a piece of a test as an unprivileged account, to see what such a caller gets.
#pragma once

#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

namespace velnor::integration {

/** Runs work in a forked child under the account "nobody" and returns the text that work
 * returned, or a text beginning "child:" when the child could not drop its privileges or did
 * not finish. Needs root. */
inline std::string runAsNobody(const std::function<std::string()>& work) {
    const passwd* nobody = getpwnam("nobody");
    int channel[2];
    if (nobody == nullptr || pipe(channel) != 0) {
        return "child: no account nobody or no pipe";
    }
    const uid_t uid = nobody->pw_uid;
    const gid_t gid = nobody->pw_gid;
    const pid_t child = fork();
    if (child == 0) {
        close(channel[0]);
        // Changing accounts makes a process undumpable, which hides even its own /proc entries
        // from it; a process started as nobody would not be.
        const bool dropped = setgroups(0, nullptr) == 0 && setgid(gid) == 0 && setuid(uid) == 0 &&
                             prctl(PR_SET_DUMPABLE, 1) == 0;
        const std::string result = dropped ? work() : "child: could not become nobody";
        const ssize_t written = write(channel[1], result.data(), result.size());
        _exit(written == static_cast<ssize_t>(result.size()) ? 0 : 1);
    }
    close(channel[1]);
    std::string result;
    char chunk[512];
    ssize_t count;
    while ((count = read(channel[0], chunk, sizeof chunk)) > 0) {
        result.append(chunk, static_cast<std::size_t>(count));
    }
    close(channel[0]);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0) {
        return "child: did not finish";
    }
    return result;
}

}  // namespace velnor::integration
