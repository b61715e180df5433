#include "ControlServer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ControlProtocol.h"
#include "ExitStatus.h"
#include "HostLock.h"
#include "PathNames.h"
#include "PluginLoader.h"

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

// The uid of the peer's process when it connected.
std::optional<uid_t> peerUid(int socket) {
    ucred credentials{};
    socklen_t size = sizeof(credentials);
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        return std::nullopt;
    }
    return credentials.uid;
}

// Sends a reply; a client that has gone only loses it.
void reply(int socket, const PlistDictionary& message) {
    (void)writeFrame(socket, message);
}

}  // namespace

Result<UniqueFd> listenOnControlSocket(const std::string& path) {
    Result<UniqueFd> folder = openRootOnlyFolder(support::folderOf(path), "control socket folder");
    if (!folder) {
        return folder.failure();
    }
    if (auto cleared = clearStaleSocket(folder->get(), support::lastNameOf(path), path); !cleared) {
        return cleared.failure();
    }
    return bindSocket(folder->get(), path);
}

ControlServer::ControlServer(const PluginDescriptor& plugin, Worker& worker, UniqueFd listener)
    : plugin_(plugin), worker_(worker), listener_(std::move(listener)) {}

ControlServer::~ControlServer() {
    close();
}

support::Status ControlServer::serve(int stopRequested) {
    for (;;) {
        pollfd watched[] = {{listener_.get(), POLLIN, 0}, {stopRequested, POLLIN, 0}};
        if (poll(watched, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return couldNot("wait on", "the control socket", errno);
        }
        reapFinished();
        if (watched[1].revents != 0) {
            listener_.reset();
            return {};
        }
        if (watched[0].revents != 0) {
            accept();
        }
    }
}

void ControlServer::close() {
    listener_.reset();
    for (auto& connection : connections_) {
        // Wakes a thread that waits for its client's next request; one whose call has just
        // finished can still write its answer.
        shutdown(connection->socket.get(), SHUT_RD);
    }
    for (auto& connection : connections_) {
        connection->thread.join();
    }
    connections_.clear();
}

void ControlServer::accept() {
    UniqueFd socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!socket.valid()) {
        return;
    }
    std::optional<uid_t> uid = peerUid(socket.get());
    if (!uid || *uid != 0) {
        reply(socket.get(), errorReply("velnord serves root only, not uid " +
                                       (uid ? std::to_string(*uid) : std::string("unknown"))));
        return;
    }
    if (connections_.size() >= kMostConnections) {
        reply(socket.get(), errorReply("velnord serves " + std::to_string(kMostConnections) +
                                       " clients already; try again later"));
        return;
    }
    auto connection = std::make_unique<Connection>();
    connection->socket = std::move(socket);
    Connection& served = *connection;
    connections_.push_back(std::move(connection));
    served.thread = std::thread([this, &served] {
        converse(served);
        served.finished = true;
    });
}

void ControlServer::reapFinished() {
    for (auto it = connections_.begin(); it != connections_.end();) {
        if ((*it)->finished) {
            (*it)->thread.join();
            it = connections_.erase(it);
        } else {
            ++it;
        }
    }
}

void ControlServer::converse(Connection& connection) {
    const int socket = connection.socket.get();
    for (;;) {
        Result<PlistDictionary> request = readFrame(socket);
        if (!request) {
            if (request.error() == EPROTO) {
                reply(socket, errorReply(request.message()));
            }
            break;
        }
        if (!answer(socket, *request)) {
            break;
        }
    }
    shutdown(socket, SHUT_RDWR);
}

// Answers one request; false when the connection ends with it.
bool ControlServer::answer(int socket, const PlistDictionary& request) {
    const PlistValue* version = request.find("version");
    if (version == nullptr || version->asInteger() != kProtocolVersion) {
        reply(socket, errorReply("velnord speaks protocol version " +
                                 std::to_string(kProtocolVersion) + " only"));
        return false;
    }
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
