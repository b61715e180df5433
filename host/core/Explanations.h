// What the friendly verbs tell a person beyond the response itself: a failure in words, what
// the server wrote to its log while a start failed, and the clients that hold a stop.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "PlistValue.h"
#include "Result.h"
#include "ServiceFacts.h"

namespace velnor::host {

// "start failed: the server did not answer within 2 s (CANNOT_START_SERVICE_TIMEOUT_ERR)".
std::string failureSentence(std::string_view verb, std::string_view code);

// The failure of a run as one JSON value: the verb and operation, then either the error
// response's code and words or, when the operation threw, the exception's type and text, and
// the exit status; beside it, the response when there is one. Printed with --json in place of
// the bare response.
PlistDictionary failureObject(std::string_view verb, std::string_view operation,
                              const PlistValue& response, const std::string& thrown,
                              int exitStatus);

// The response as a person reads it: the protocol's bookkeeping (report and status versions)
// left out, and the state in lower case.
PlistValue humanView(const PlistValue& response);

// Where the server's log stood before a call: the file and its size then (0 when it was not
// there yet).
struct LogMark {
    std::string path;
    off_t size = 0;
};

// The size of the log file now. Fails when it cannot be opened safely (a link where the
// service account could have planted it, not a regular file), but not when it is missing.
support::Result<LogMark> markLog(const std::string& path);

// What was appended to the log since the mark, at most limit bytes of its end, cut to whole
// lines. A file that shrank since (rotated) is read from its beginning.
support::Result<std::string> appendedSince(const LogMark& mark, std::size_t limit);

// A client connection of a server, as the server's process title shows it.
struct ClientTitle {
    pid_t pid = 0;
    std::string user;
    std::string database;
    std::string host;
    std::string state;
};

// The client connection that a process title shows, "postgres: USER DB HOST STATE", the state
// being the rest of the title; nothing for the server's own processes (checkpointer, ...).
std::optional<ClientTitle> parseClientTitle(pid_t pid, std::string_view title);

// A process whose title shows a client connection, with its owner and parent.
struct ClientProcess {
    ClientTitle client;
    uid_t owner = 0;
    pid_t parent = 0;
};

// Every process on the machine whose title shows a client connection: the host's one walk
// over /proc. The title is the process's first argument, which the server rewrites.
std::vector<ClientProcess> clientProcesses();

// The client connections of every server run from /usr/bin/postgres..., read from the process
// titles of the children of its main process: a server that is shutting down takes no new
// connection that could be asked.
std::vector<ClientTitle> serverClients();

}  // namespace velnor::host
