#include "Terminal.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace velnor::host {
namespace {

thread_local const Terminal* current = nullptr;

const Terminal& processTerminal() {
    static const Terminal own{STDOUT_FILENO, STDERR_FILENO, STDIN_FILENO, AT_FDCWD, getpid()};
    return own;
}

}  // namespace

const Terminal& terminal() {
    return current != nullptr ? *current : processTerminal();
}

TerminalScope::TerminalScope(const Terminal& terminal) : previous_(current) {
    current = &terminal;
}

TerminalScope::~TerminalScope() {
    current = previous_;
}

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

void printLogMessage(const Terminal& terminal, std::string_view message) {
    std::string line = "velnor[" + std::to_string(terminal.pid) + "]: ";
    line += message;
    if (!line.ends_with('\n')) {
        line += '\n';
    }
    (void)writeAll(terminal.err, line);
}

}  // namespace velnor::host
