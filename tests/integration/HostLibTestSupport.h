// What the integration tests of the host support library share: throwaway folders, running
// Python's plistlib and running code as another account.
#pragma once

#include <grp.h>
#include <pwd.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

extern char** environ;

namespace velnor::testing {

// A folder under /tmp that is removed with everything in it when the test ends.
class TemporaryFolder {
  public:
    // pattern: a mkdtemp pattern; the default lies in /tmp, which is open to every account.
    explicit TemporaryFolder(std::string pattern = "/tmp/velnor-hostlib-XXXXXX")
        : path_(std::move(pattern)) {
        if (::mkdtemp(path_.data()) == nullptr) {
            throw std::runtime_error("cannot create a temporary folder");
        }
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// The exit status of a Python script run with plistlib, datetime and sys imported and the
// arguments in sys.argv, or -1 when it could not be run or did not exit normally.
inline int runPython(const std::string& script, const std::vector<std::string>& arguments = {}) {
    std::vector<std::string> command{"python3", "-c", "import plistlib, datetime, math, sys\n" + script};
    command.insert(command.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : command) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    pid_t pid = 0;
    int status = 0;
    if (::posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0 ||
        ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

inline std::string fileText(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

inline void writeText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline struct stat statusOf(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 ? status
                                               : throw std::runtime_error("cannot examine " + path);
}

inline std::vector<std::string> folderEntries(const std::string& path) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
        names.push_back(entry.path().filename().string());
    }
    return names;
}

struct Account {
    uid_t uid;
    gid_t gid;
};

inline Account nobody() {
    const passwd* account = ::getpwnam("nobody");
    return account ? Account{account->pw_uid, account->pw_gid}
                   : throw std::runtime_error("this machine has no account nobody");
}

// Runs check in a child process that has become account; true when check answered true there.
inline bool runAs(Account account, const std::function<bool()>& check) {
    pid_t child = ::fork();
    if (child == 0) {
        bool passed = ::setgroups(0, nullptr) == 0 && ::setgid(account.gid) == 0 &&
                      ::setuid(account.uid) == 0 && check();
        ::_exit(passed ? 0 : 1);
    }
    int status = 0;
    return child > 0 && ::waitpid(child, &status, 0) == child && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

}  // namespace velnor::testing
