// What the integration tests of the host support library share: throwaway folders, their files,
// and running code as another account.
#pragma once

#include <grp.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>

namespace velnor::testing {

// A folder made from a mkdtemp pattern, removed with everything in it when the test ends.
class TemporaryFolder {
  public:
    explicit TemporaryFolder(std::string pattern = "/tmp/velnor-hostlib-XXXXXX")
        : path_(std::move(pattern)) {
        if (::mkdtemp(path_.data()) == nullptr) {
            throw std::runtime_error("cannot create a temporary folder");
        }
    }
    ~TemporaryFolder() { std::filesystem::remove_all(path_); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

inline std::string fileText(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

inline void writeText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// Runs check in a child process that has become the account nobody; true when check answered
// true there.
inline bool runAsNobody(const std::function<bool()>& check) {
    const passwd* nobody = ::getpwnam("nobody");
    if (nobody == nullptr) {
        return false;
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(::setgroups(0, nullptr) == 0 && ::setgid(nobody->pw_gid) == 0 &&
                        ::setuid(nobody->pw_uid) == 0 && check()
                    ? 0
                    : 1);
    }
    int status = 0;
    return child > 0 && ::waitpid(child, &status, 0) == child && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

}  // namespace velnor::testing
