// Where a command's output goes and what its relative paths and "-" mean. In velnor these are
// the process's own standard streams and working folder; in velnord, running a client's command
// line, they are the descriptors that the client passed over the control socket, so that the
// output lands where the client's would have, in the order it would have, while it runs.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace velnor::host {

struct Terminal {
    int out = -1;
    int err = -1;
    int input = -1;
    // A relative path of the command line is taken from here (AT_FDCWD in velnor).
    int workingFolder = -1;
    // The process named in the plug-in's messages, "velnor[PID]: ...".
    pid_t pid = 0;
    // In velnord, the client's connection: once the client has gone, nothing more is written
    // to its descriptors (its terminal may be someone else's by then), while the command runs
    // on to its end.
    int connection = -1;

    // Write all of text to standard output or error; false, with errno set, when it cannot.
    bool toOut(std::string_view text) const;
    bool toErr(std::string_view text) const;
};

// The terminal of the command that this thread runs: the process's own unless a TerminalScope
// says otherwise.
const Terminal& terminal();

// Makes terminal the one that this thread's commands use, until the scope ends.
class TerminalScope {
  public:
    explicit TerminalScope(const Terminal& terminal);
    ~TerminalScope();
    TerminalScope(const TerminalScope&) = delete;
    TerminalScope& operator=(const TerminalScope&) = delete;

  private:
    const Terminal* previous_;
};

// Tells a failure on the terminal's standard error as "velnor: MESSAGE".
void complain(const std::string& message);

// Prints a log message of the plug-in as the in-process host's log prints it on standard error.
void printLogMessage(const Terminal& terminal, std::string_view message);

}  // namespace velnor::host
