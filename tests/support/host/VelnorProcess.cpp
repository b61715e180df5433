#include "VelnorProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
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
        std::string name(text.substr(0, text.find('=')));
        if (!changes.contains(name)) {
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

// A descriptor whose reading gives input and then the end: the child's standard input.
int inputDescriptor(std::string_view input) {
    int descriptor = memfd_create("velnor-input", MFD_CLOEXEC);
    if (descriptor < 0) {
        return -1;
    }
    if (write(descriptor, input.data(), input.size()) != static_cast<ssize_t>(input.size()) ||
        lseek(descriptor, 0, SEEK_SET) != 0) {
        close(descriptor);
        return -1;
    }
    return descriptor;
}

// Appends what is there to read; false at the end of the stream.
bool drain(int descriptor, std::string& text) {
    char buffer[4096];
    ssize_t count = read(descriptor, buffer, sizeof buffer);
    if (count > 0) {
        text.append(buffer, static_cast<std::size_t>(count));
        return true;
    }
    return count < 0 && errno == EINTR;
}

}  // namespace

VelnorProcess::VelnorProcess(const std::vector<std::string>& arguments,
                             const EnvironmentChanges& changes, std::string_view input) {
    int outPipe[2];
    int errPipe[2];
    int in = inputDescriptor(input);
    if (in < 0 || pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "cannot set up velnor's standard streams: " << std::strerror(errno);
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);

    std::vector<std::string> argv{VELNOR_BINARY};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::vector<std::string> environment = childEnvironment(changes);
    int result = posix_spawn(&pid_, VELNOR_BINARY, &actions, nullptr, pointers(argv).data(),
                             pointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    close(in);
    close(outPipe[1]);
    close(errPipe[1]);
    out_ = outPipe[0];
    err_ = errPipe[0];
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
    for (int descriptor : {out_, err_}) {
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
}

bool VelnorProcess::hasWrittenOutput() const {
    pollfd ready{out_, POLLIN, 0};
    return poll(&ready, 1, 0) == 1 && (ready.revents & POLLIN) != 0;
}

bool VelnorProcess::hasEnded() {
    if (!waitStatus_ && pid_ > 0) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            waitStatus_ = status;
        }
    }
    return waitStatus_.has_value();
}

VelnorRun VelnorProcess::finish() {
    VelnorRun run;
    if (pid_ <= 0) {
        return run;
    }
    pollfd streams[2] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}};
    std::string* texts[2] = {&run.out, &run.err};
    int open = 2;
    while (open > 0) {
        if (poll(streams, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        for (int index = 0; index < 2; ++index) {
            if (streams[index].fd >= 0 && streams[index].revents != 0 &&
                !drain(streams[index].fd, *texts[index])) {
                streams[index].fd = -1;  // poll skips negative descriptors
                --open;
            }
        }
    }
    if (!waitStatus_) {
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        waitStatus_ = status;
    }
    run.exitStatus = WIFEXITED(*waitStatus_) ? WEXITSTATUS(*waitStatus_) : -1;
    return run;
}

VelnorRun runVelnor(const std::vector<std::string>& arguments, const EnvironmentChanges& changes,
                    std::string_view input) {
    VelnorProcess process(arguments, changes, input);
    return process.finish();
}

}  // namespace velnor::testing
