// What the integration tests of the host support library share: throwaway folders, running a
// program and running code as another account.
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
#include <vector>

extern char** environ;

namespace velnor::testing {

// A folder under /tmp that is removed with everything in it when the test ends.
class TemporaryFolder {
  public:
    TemporaryFolder() {
        std::string pattern = "/tmp/velnor-hostlib-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("cannot create a temporary folder");
        }
        path_ = pattern;
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

// The exit status of the program run with arguments, or -1 when it could not be run or did
// not exit normally.
inline int runProgram(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    for (const auto& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (::posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
        return -1;
    }
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

// Runs a Python script with plistlib, datetime and sys imported and the arguments in sys.argv.
inline int runPython(const std::string& script, const std::vector<std::string>& arguments = {}) {
    std::vector<std::string> command{"python3", "-c", "import plistlib, datetime, sys\n" + script};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return runProgram(command);
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
    if (::lstat(path.c_str(), &status) != 0) {
        throw std::runtime_error("cannot examine " + path);
    }
    return status;
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
    if (account == nullptr) {
        throw std::runtime_error("this machine has no account nobody");
    }
    return {account->pw_uid, account->pw_gid};
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
