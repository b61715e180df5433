#include "ControlServer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ClientCommand.h"
#include "ControlProtocol.h"
#include "ExitStatus.h"
#include "PathNames.h"
#include "PluginLoader.h"
#include "RootFolder.h"

namespace velnor::host {
namespace {

using support::couldNot;
using support::Result;
using support::UniqueFd;

constexpr mode_t kSocketMode = 0600;
constexpr int kListenBacklog = 64;
// Clients served at the same time; one more is told to come back later. Each costs a thread
// and a descriptor, so a flood of idle connections cannot exhaust the daemon.
constexpr std::size_t kMostConnections = 128;
// Threads kept waiting for the next client once a burst has passed.
constexpr std::size_t kSpareThreads = 2;

// Removes a socket that an earlier daemon left at name, when it is root's; refuses anything else.
support::Status clearStaleSocket(int folder, const std::string& name, const std::string& path) {
    struct stat status;
    if (fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? support::Status()
                               : support::Status(couldNot("inspect", path, errno));
    }
    if (!S_ISSOCK(status.st_mode) || status.st_uid != 0) {
        return couldNot("replace", path, "it is not a socket of root's", EEXIST);
    }
    if (unlinkat(folder, name.c_str(), 0) != 0) {
        return couldNot("remove the stale socket", path, errno);
    }
    return {};
}

// Binds under a temporary name and renames the socket into place once it listens, so that a
// client that finds the socket finds it answering.
Result<UniqueFd> bindSocket(int folder, const std::string& path) {
    UniqueFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!listener.valid()) {
        return couldNot("create", path, errno);
    }
    const std::string name = support::lastNameOf(path);
    const std::string temporaryName = "." + name + "." + std::to_string(getpid());
    const std::string temporaryPath = support::joinedPath(support::folderOf(path), temporaryName);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (temporaryPath.size() >= sizeof(address.sun_path)) {
        return couldNot("bind", path, "the path is too long for a socket", ENAMETOOLONG);
    }
    std::memcpy(address.sun_path, temporaryPath.c_str(), temporaryPath.size() + 1);
    unlinkat(folder, temporaryName.c_str(), 0);
    // Created 0600 from the start: no moment in which another account could connect.
    mode_t previous = umask(0777 & ~kSocketMode);
    int bound = bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address));
    int error = errno;
    umask(previous);
    if (bound != 0) {
        return couldNot("bind", temporaryPath, error);
    }
    if (fchmodat(folder, temporaryName.c_str(), kSocketMode, 0) != 0 ||
        listen(listener.get(), kListenBacklog) != 0 ||
        renameat(folder, temporaryName.c_str(), folder, name.c_str()) != 0) {
        error = errno;
        unlinkat(folder, temporaryName.c_str(), 0);
        return couldNot("listen on", path, error);
    }
    return listener;
}

// The credentials of the peer's process when it connected.
std::optional<ucred> peerCredentials(int socket) {
    ucred credentials{};
    socklen_t size = sizeof(credentials);
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        return std::nullopt;
    }
    return credentials;
}

// The bytes of a string or data value; nullptr for any other kind.
const std::string* bytesOf(const PlistValue& value) {
    return value.asData() != nullptr ? value.asData() : value.asString();
}

// The arguments of a command-line request: each a string or, as velnor sends them, the bytes
// it was given. Nothing when the request's "run" is not such an array.
std::optional<std::vector<std::string>> argumentsOf(const PlistValue& run) {
    const PlistArray* array = run.asArray();
    if (array == nullptr) {
        return std::nullopt;
    }
    std::vector<std::string> arguments;
    for (const PlistValue& argument : *array) {
        const std::string* text = bytesOf(argument);
        if (text == nullptr) {
            return std::nullopt;
        }
        arguments.push_back(*text);
    }
    return arguments;
}

// Sends a reply; a client that has gone only loses it.
void reply(int socket, const PlistDictionary& message) {
    (void)writeFrame(socket, message);
}

}  // namespace

Result<UniqueFd> listenOnControlSocket(const std::string& path) {
    Result<UniqueFd> folder =
        support::openRootOnlyFolder(support::folderOf(path), "control socket folder");
    if (!folder) {
        return folder.failure();
    }
    if (auto cleared = clearStaleSocket(folder->get(), support::lastNameOf(path), path); !cleared) {
        return cleared.failure();
    }
    return bindSocket(folder->get(), path);
}

ControlServer::ControlServer(const PluginDescriptor& plugin, std::string pluginPath, Worker& worker,
                             UniqueFd listener)
    : plugin_(plugin),
      pluginPath_(std::move(pluginPath)),
      worker_(worker),
      listener_(std::move(listener)) {}

ControlServer::~ControlServer() {
    close();
}

support::Status ControlServer::serve(int stopRequested) {
    {
        std::lock_guard lock(mutex_);
        addAcceptor();
    }
    for (;;) {
        pollfd watched{stopRequested, POLLIN, 0};
        if (poll(&watched, 1, -1) < 0 && errno != EINTR) {
            stopAccepting();
            return couldNot("wait on", "the daemon's stop signal", errno);
        }
        if (watched.revents != 0) {
            stopAccepting();
            return {};
        }
    }
}

// Wakes every thread that waits in accept, which then fails.
void ControlServer::stopAccepting() {
    shutdown(listener_.get(), SHUT_RDWR);
}

void ControlServer::close() {
    stopAccepting();
    std::unique_lock lock(mutex_);
    closed_ = true;
    for (int socket : conversing_) {
        // Wakes a thread that waits for its client's next request; one whose call has just
        // finished can still write its answer.
        shutdown(socket, SHUT_RD);
    }
    allGone_.wait(lock, [this] { return threads_ == 0; });
}

// One more thread waiting for a connection; called with the mutex held, or before any runs.
void ControlServer::addAcceptor() {
    ++threads_;
    ++waiting_;
    std::thread([this] { acceptConnections(); }).detach();
}

// A thread's life: it waits for a connection, converses, and waits again, unless enough others
// wait already. Threads are kept rather than made per connection: a new one costs more here
// than the whole conversation of a status.
void ControlServer::acceptConnections() {
    while (std::optional<Connection> connection = nextConnection()) {
        {
            std::lock_guard lock(mutex_);
            conversing_.insert(connection->socket.get());
            if (closed_) {
                shutdown(connection->socket.get(), SHUT_RD);
            }
        }
        converse(*connection);
        std::lock_guard lock(mutex_);
        conversing_.erase(connection->socket.get());
        --busy_;
        if (waiting_ >= kSpareThreads) {
            break;
        }
        ++waiting_;
    }
    std::lock_guard lock(mutex_);
    if (--threads_ == 0) {
        allGone_.notify_all();
    }
}

// Counts one more client served, unless as many as may be are served already; the last waiting
// thread leaves one behind, so that the next client is answered too.
bool ControlServer::takeOn() {
    std::lock_guard lock(mutex_);
    if (busy_ >= kMostConnections) {
        return false;
    }
    ++busy_;
    if (--waiting_ == 0) {
        addAcceptor();
    }
    return true;
}

// The next connection of root's that this thread serves; nothing when the daemon stops
// accepting (the thread no longer counts as waiting then).
std::optional<ControlServer::Connection> ControlServer::nextConnection() {
    for (;;) {
        // The kernel hands each connection to one waiting thread.
        UniqueFd socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!socket.valid()) {
            // EINVAL: the listener was shut down. Anything else (a client that gave up, no
            // descriptor to spare) ends only this attempt.
            if (errno == EINVAL) {
                break;
            }
            continue;
        }
        std::optional<ucred> peer = peerCredentials(socket.get());
        if (!peer || peer->uid != 0) {
            reply(socket.get(),
                  errorReply("velnord serves root only, not uid " +
                             (peer ? std::to_string(peer->uid) : std::string("unknown"))));
            continue;
        }
        if (takeOn()) {
            return Connection{std::move(socket), peer->pid};
        }
        // Told outside the lock: a client that reads nothing must not hold up the others.
        reply(socket.get(), errorReply("velnord serves " + std::to_string(kMostConnections) +
                                       " clients already; try again later"));
    }
    std::lock_guard lock(mutex_);
    --waiting_;
    return std::nullopt;
}

void ControlServer::converse(Connection& connection) {
    const int socket = connection.socket.get();
    for (;;) {
        std::vector<UniqueFd> passed;
        Result<PlistDictionary> request = readFrame(socket, &passed);
        if (!request) {
            if (request.error() == EPROTO) {
                reply(socket, errorReply(request.message()));
            }
            break;
        }
        if (!answer(connection, *request, passed)) {
            break;
        }
    }
    shutdown(socket, SHUT_RDWR);
}

// Answers one request; false when the connection ends with it.
bool ControlServer::answer(const Connection& connection, const PlistDictionary& request,
                           std::vector<UniqueFd>& passed) {
    const int socket = connection.socket.get();
    const PlistValue* version = request.find("version");
    if (version == nullptr || version->asInteger() != kProtocolVersion) {
        reply(socket, errorReply("velnord speaks protocol version " +
                                 std::to_string(kProtocolVersion) + " only"));
        return false;
    }
    if (request.contains("run")) {
        return answerCommandLine(connection, request, passed);
    }
    return answerCall(socket, request);
}

// Runs a client's command line with its own descriptors; the exit status, or "direct" when the
// client is to run it in its own process.
bool ControlServer::answerCommandLine(const Connection& connection, const PlistDictionary& request,
                                      std::vector<UniqueFd>& passed) {
    const int socket = connection.socket.get();
    std::optional<std::vector<std::string>> arguments = argumentsOf(*request.find("run"));
    if (!arguments || passed.size() != kClientDescriptors) {
        reply(socket, errorReply("a command line's request carries its arguments and " +
                                 std::to_string(kClientDescriptors) +
                                 " descriptors: standard input, output, error and the working "
                                 "folder"));
        return false;
    }
    ClientCommand client{std::move(*arguments), std::nullopt, std::move(passed), connection.peer,
                         socket};
    if (const PlistValue* plugin = request.find("plugin")) {
        const std::string* path = bytesOf(*plugin);
        client.pluginFromEnvironment = path ? std::optional<std::string>(*path) : std::nullopt;
    }
    std::optional<int> status = runClientCommand(client, plugin_, pluginPath_, worker_);
    // A command line is the connection's last request: the client ends once told.
    if (!status) {
        reply(socket, {{"kind", PlistValue("direct")}});
    } else {
        reply(socket, {{"kind", PlistValue("exit")}, {"status", PlistValue::integer(*status)}});
    }
    return false;
}

bool ControlServer::answerCall(int socket, const PlistDictionary& request) {
    const std::string* name = textAt(request, "operation");
    if (name == nullptr) {
        reply(socket, errorReply("a request names its \"operation\""));
        return false;
    }
    const HostOperation* operation = findOperation(plugin_, *name);
    if (operation == nullptr) {
        reply(socket, errorReply("the plug-in has no operation \"" + *name + "\"", kExitUsage));
        return true;
    }
    if (request.contains("describe")) {
        reply(socket, PlistDictionary{{"kind", PlistValue("style")},
                                      {"style", PlistValue(styleName(operation->style))}});
        return true;
    }
    // A client that knows the style it prepared its argument for says so, and is told, as the
    // in-process host would tell it, when the operation has another.
    if (const std::string* expected = textAt(request, "style");
        expected != nullptr && *expected != styleName(operation->style)) {
        reply(socket, errorReply("the plug-in's " + *name + " is a " + styleName(operation->style) +
                                     " operation, which this command cannot call",
                                 kExitUnavailable));
        return true;
    }
    Result<OperationArgument> argument = argumentOfRequest(request, operation->style);
    if (!argument) {
        reply(socket, errorReply(argument.message()));
        return false;
    }
    // Each message goes out as it is logged; once the client has gone, the rest are dropped and
    // the call goes on.
    bool clientGone = false;
    auto relay = [socket, &clientGone](int priority, const std::string& message) {
        if (!clientGone) {
            clientGone = !writeFrame(socket, {{"kind", PlistValue("log")},
                                              {"priority", PlistValue::integer(priority)},
                                              {"message", PlistValue(message)}});
        }
    };
    std::optional<Outcome> outcome = worker_.call(*operation, std::move(*argument), relay);
    if (!outcome) {
        reply(socket, errorReply("velnord is stopping; the call was not run"));
        return false;
    }
    return writeFrame(socket, outcomeReply(*outcome)).ok();
}

}  // namespace velnor::host
