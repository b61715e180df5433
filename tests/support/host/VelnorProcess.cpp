#include "VelnorProcess.h"

#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace velnor::testing {
namespace {

std::vector<std::string> childEnvironment(const EnvironmentChanges& changes) {
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        std::string_view text(*entry);
        if (!changes.contains(std::string(text.substr(0, text.find('='))))) {
            result.emplace_back(text);
        }
    }
    for (const auto& [name, value] : changes) {
        if (value) {
            result.push_back(name + "=" + *value);
        }
    }
    return result;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> result;
    for (std::string& text : strings) {
        result.push_back(text.data());
    }
    result.push_back(nullptr);
    return result;
}

// A file in memory holding content, read from its start. As an output it is read back once the
// child has ended, so nothing has to drain it meanwhile and a process that the child leaves
// running cannot hold the test up by keeping it open.
int memoryFile(std::string_view content) {
    int descriptor = memfd_create("velnor-stream", MFD_CLOEXEC);
    if (descriptor >= 0 && pwrite(descriptor, content.data(), content.size(), 0) < 0) {
        close(descriptor);
        return -1;
    }
    return descriptor;
}

std::string contentOf(int descriptor) {
    std::string text;
    char buffer[4096];
    ssize_t count = 0;
    while ((count = pread(descriptor, buffer, sizeof buffer, off_t(text.size()))) > 0) {
        text.append(buffer, std::size_t(count));
    }
    return text;
}

}  // namespace

VelnorProcess::VelnorProcess(const std::vector<std::string>& arguments,
                             const EnvironmentChanges& changes, std::string_view input)
    : in_(memoryFile(input)), out_(memoryFile({})), err_(memoryFile({})) {
    if (in_ < 0 || out_ < 0 || err_ < 0) {
        ADD_FAILURE() << "cannot set up velnor's standard streams: " << std::strerror(errno);
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in_, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out_, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err_, STDERR_FILENO);
    std::vector<std::string> argv{VELNOR_BINARY};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::vector<std::string> environment = childEnvironment(changes);
    int result = posix_spawn(&pid_, VELNOR_BINARY, &actions, nullptr, pointers(argv).data(),
                             pointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    if (result != 0) {
        pid_ = -1;
        ADD_FAILURE() << "cannot start " << VELNOR_BINARY << ": " << std::strerror(result);
    }
}

VelnorProcess::~VelnorProcess() {
    if (pid_ > 0 && !waitStatus_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    for (int descriptor : {in_, out_, err_}) {
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
}

bool VelnorProcess::hasWrittenOutput() const {
    struct stat status;
    return fstat(out_, &status) == 0 && status.st_size > 0;
}

bool VelnorProcess::hasEnded() {
    int status = 0;
    if (!waitStatus_ && pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_) {
        waitStatus_ = status;
    }
    return waitStatus_.has_value();
}

VelnorRun VelnorProcess::finish() {
    VelnorRun run;
    if (pid_ <= 0) {
        return run;
    }
    int status = -1;  // read as not having exited, should waitpid fail
    while (!waitStatus_ && waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    waitStatus_ = waitStatus_.value_or(status);
    run.exitStatus = WIFEXITED(*waitStatus_) ? WEXITSTATUS(*waitStatus_) : -1;
    run.out = contentOf(out_);
    run.err = contentOf(err_);
    return run;
}

}  // namespace velnor::testing
