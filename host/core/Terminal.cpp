#include "Terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace velnor::host {
namespace {

thread_local const Terminal* current = nullptr;

const Terminal& processTerminal() {
    static const Terminal own{STDOUT_FILENO, STDERR_FILENO, STDIN_FILENO, AT_FDCWD, getpid(), -1};
    return own;
}

// Writes all of text to descriptor: the output never waits in a buffer.
bool writeAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        ssize_t count = ::write(descriptor, text.data(), text.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return false;
        }
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

// True once the client at the other end of connection has closed it.
bool hasGone(int connection) {
    pollfd watched{connection, POLLRDHUP, 0};
    return connection >= 0 && poll(&watched, 1, 0) == 1 &&
           (watched.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

}  // namespace

bool Terminal::toOut(std::string_view text) const {
    if (hasGone(connection)) {
        errno = EPIPE;
        return false;
    }
    return writeAll(out, text);
}

bool Terminal::toErr(std::string_view text) const {
    if (hasGone(connection)) {
        errno = EPIPE;
        return false;
    }
    return writeAll(err, text);
}

const Terminal& terminal() {
    return current != nullptr ? *current : processTerminal();
}

TerminalScope::TerminalScope(const Terminal& terminal) : previous_(current) {
    current = &terminal;
}

TerminalScope::~TerminalScope() {
    current = previous_;
}

void printLogMessage(const Terminal& terminal, std::string_view message) {
    std::string line = "velnor[" + std::to_string(terminal.pid) + "]: ";
    line += message;
    if (!line.ends_with('\n')) {
        line += '\n';
    }
    (void)terminal.toErr(line);
}

void complain(const std::string& message) {
    (void)terminal().toErr("velnor: " + message + "\n");
}

}  // namespace velnor::host
