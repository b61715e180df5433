#include "ControlServer.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>

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

// Every account may connect: what each may ask is decided per request.
constexpr mode_t kSocketMode = 0666;
constexpr int kListenBacklog = 64;
// Threads kept waiting for the next command line.
constexpr std::size_t kSpareCommandThreads = 2;
// Connections taken from the backlog in one turn of the loop, so that a flood of them cannot
// keep the loop from the replies it has to send.
constexpr int kAcceptsPerTurn = 32;
// What a client may leave unread before it is dropped: a client that reads nothing cannot make
// the daemon keep a call's messages without end.
constexpr std::size_t kMostUnsent = std::size_t{4} << 20;

std::uint64_t microsecondsOf(std::chrono::steady_clock::duration duration) {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(duration).count());
}

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
    // Created with its mode from the start, never wider for a moment.
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

// Tells a client that the daemon will not serve it, without waiting: a client that reads
// nothing only loses the answer.
void refuse(int socket, const std::string& why) {
    const std::string frame = encodedFrame(errorReply(why));
    (void)::send(socket, frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
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

LoopInbox::LoopInbox() : wake_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

void LoopInbox::post(std::function<void()> work) {
    bool first = false;
    {
        std::lock_guard lock(mutex_);
        first = posted_.empty();
        posted_.push_back(std::move(work));
    }
    // One wake-up for a batch: the loop takes everything posted when it drains.
    if (first) {
        const std::uint64_t one = 1;
        (void)::write(wake_.get(), &one, sizeof one);
    }
}

void LoopInbox::drain() {
    std::uint64_t count = 0;
    (void)::read(wake_.get(), &count, sizeof count);
    std::deque<std::function<void()>> taken;
    {
        std::lock_guard lock(mutex_);
        taken.swap(posted_);
    }
    for (std::function<void()>& work : taken) {
        try {
            work();
        } catch (...) {
            ::syslog(LOG_ERR, "velnord could not pass on the worker's answer: %s",
                     describeCurrentException().c_str());
        }
    }
}

// A client of the control socket as the loop sees it. While a call of its runs, its requests are
// not read (one at a time); while the daemon waits for its next request, the frame deadline runs.
struct ControlServer::Connection {
    ControlServer& server;
    std::uint64_t id;
    UniqueFd socket;
    PeerProcess peer;
    FrameReader reader;
    sd_event_source* io = nullptr;
    sd_event_source* deadline = nullptr;
    std::string unsent;
    // A call of its is on the worker.
    bool busy = false;
    // It is told its last reply, then closed.
    bool closing = false;
    // It has gone or is to be dropped at once.
    bool dead = false;
    // Its place among its account's connections is still its own, not its command line's.
    bool counted = true;
    // The request that waits for polkit's answer, what admission made of it, and the question.
    std::optional<ReceivedFrame> pending;
    AdmissionDecision decision;
    PolkitQuestion question;

    ~Connection() {
        sd_event_source_disable_unref(io);
        sd_event_source_disable_unref(deadline);
        if (counted) {
            server.caps_.give(peer.caller.uid);
        }
    }
};

// Hands a call's messages and outcome to the loop, which sends them to the connection if it is
// still there.
class ControlServer::LoopCallSink : public CallSink {
  public:
    LoopCallSink(ControlServer& server, std::uint64_t id) : server_(server), id_(id) {}

    void message(int priority, const std::string& text) override {
        server_.inbox_.post([server = &server_, id = id_, priority, text] {
            server->deliverMessage(id, priority, text);
        });
    }

    void finished(std::optional<Outcome> outcome) override {
        server_.inbox_.post([server = &server_, id = id_, outcome = std::move(outcome)] {
            server->deliverOutcome(id, outcome);
        });
    }

  private:
    ControlServer& server_;
    const std::uint64_t id_;
};

Result<std::unique_ptr<ControlServer>> ControlServer::create(const PluginDescriptor& plugin,
                                                             std::string pluginPath, Worker& worker,
                                                             LoopInbox& inbox, UniqueFd listener,
                                                             RefusalReport report) {
    std::unique_ptr<ControlServer> server(new ControlServer(
        plugin, std::move(pluginPath), worker, inbox, std::move(listener), std::move(report)));
    if (support::Status watching = server->watch(); !watching) {
        return watching.failure();
    }
    return server;
}

ControlServer::ControlServer(const PluginDescriptor& plugin, std::string pluginPath, Worker& worker,
                             LoopInbox& inbox, UniqueFd listener, RefusalReport report)
    : plugin_(plugin),
      pluginPath_(std::move(pluginPath)),
      worker_(worker),
      inbox_(inbox),
      listener_(std::move(listener)),
      report_(std::move(report)),
      commandLines_(kSpareCommandThreads) {}

ControlServer::~ControlServer() {
    connections_.clear();
    commandLines_.stop();
    sd_event_source_disable_unref(listenerSource_);
    sd_event_source_disable_unref(inboxSource_);
    sd_event_source_disable_unref(stopTimer_);
    sd_event_unref(event_);
}

// Everything the loop waits on.
support::Status ControlServer::watch() {
    int failed = sd_event_new(&event_);
    if (failed < 0) {
        return couldNot("create", "the daemon's event loop", -failed);
    }
    const int flags = fcntl(listener_.get(), F_GETFL);
    if (flags < 0 || fcntl(listener_.get(), F_SETFL, flags | O_NONBLOCK) != 0) {
        return couldNot("watch", kControlSocketPath, errno);
    }
    if ((failed = sd_event_add_io(event_, &listenerSource_, listener_.get(), EPOLLIN, onListener,
                                  this)) < 0 ||
        (failed = sd_event_add_io(event_, &inboxSource_, inbox_.descriptor(), EPOLLIN, onInbox,
                                  this)) < 0 ||
        (failed = sd_event_add_signal(event_, nullptr, SIGTERM, onStopSignal, this)) < 0 ||
        (failed = sd_event_add_signal(event_, nullptr, SIGINT, onStopSignal, this)) < 0) {
        return couldNot("watch", "the daemon's control socket, timer and signals", -failed);
    }
    polkit_ = std::make_unique<PolkitAuthority>(event_);
    return {};
}

support::Status ControlServer::serve() {
    const int failed = sd_event_loop(event_);
    sd_event_source_set_enabled(listenerSource_, SD_EVENT_OFF);
    listener_.reset();
    if (failed < 0) {
        return couldNot("run", "the daemon's event loop", -failed);
    }
    return {};
}

void ControlServer::finish() {
    // The worker has stopped: the answers it gave last are sent, as far as each client takes
    // them now, and every connection ends.
    inbox_.drain();
    for (auto& [id, connection] : connections_) {
        flush(*connection);
    }
    connections_.clear();
    commandLines_.stop();
    inbox_.drain();
}

int ControlServer::onStopSignal(sd_event_source* source, const ::signalfd_siginfo*, void*) {
    return sd_event_exit(sd_event_source_get_event(source), 0);
}

int ControlServer::onInbox(sd_event_source*, int, std::uint32_t, void* self) {
    static_cast<ControlServer*>(self)->inbox_.drain();
    return 0;
}

int ControlServer::onStopDeadline(sd_event_source*, std::uint64_t, void* self) {
    ControlServer& server = *static_cast<ControlServer*>(self);
    if (server.stopDeadline_) {
        server.worker_.queueStopQuery(server.stopDeadline_->label);
        server.stopDeadline_.reset();
    }
    return 0;
}

void ControlServer::setStopDeadline(std::optional<StopDeadline> deadline) {
    stopDeadline_ = std::move(deadline);
    if (!stopDeadline_) {
        sd_event_source_set_enabled(stopTimer_, SD_EVENT_OFF);
        return;
    }
    const std::uint64_t at = microsecondsOf(stopDeadline_->at.time_since_epoch());
    int failed = 0;
    if (stopTimer_ == nullptr) {
        failed =
            sd_event_add_time(event_, &stopTimer_, CLOCK_MONOTONIC, at, 1000, onStopDeadline, this);
    } else {
        failed = sd_event_source_set_time(stopTimer_, at);
        if (failed >= 0) {
            failed = sd_event_source_set_enabled(stopTimer_, SD_EVENT_ONESHOT);
        }
    }
    if (failed < 0) {
        // The next call looks again; until then the stop runs past its deadline.
        ::syslog(LOG_ERR, "could not set the stop deadline of %s: %s", stopDeadline_->label.c_str(),
                 std::strerror(-failed));
    }
}

int ControlServer::onListener(sd_event_source*, int, std::uint32_t, void* self) {
    ControlServer& server = *static_cast<ControlServer*>(self);
    try {
        server.acceptConnections();
    } catch (...) {
        ::syslog(LOG_ERR, "velnord could not take a connection: %s",
                 describeCurrentException().c_str());
    }
    return 0;
}

void ControlServer::acceptConnections() {
    for (int taken = 0; taken < kAcceptsPerTurn; ++taken) {
        // A connection's socket stays blocking: the loop never waits on it, since its every
        // read and write says MSG_DONTWAIT, and a command line's thread, which takes the socket
        // over and may wait to write its reply, needs no change of flags first.
        UniqueFd socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!socket.valid()) {
            // EAGAIN: none left. Anything else (a client that gave up, no descriptor to spare)
            // ends only this attempt; the listener stays readable for the next turn.
            return;
        }
        admit(std::move(socket));
    }
}

// Every account's clients are taken, up to its caps; one over them is told why not. Who the peer
// is, and a hold on its process, are taken now, as it connected: what it asks is decided per
// request.
void ControlServer::admit(UniqueFd socket) {
    Result<PeerProcess> peer = peerProcessOf(socket.get());
    if (!peer) {
        refuse(socket.get(), "velnord could not tell who connected: " + peer.message());
        return;
    }
    const uid_t uid = peer->caller.uid;
    if (!caps_.take(uid)) {
        const ConnectionLimits& limits = caps_.limits();
        refuse(socket.get(),
               uid == 0 ? "velnord serves " + std::to_string(limits.root) +
                              " clients of root already; try again later"
                        : "velnord serves " + std::to_string(limits.perAccount) + " clients of " +
                              peer->caller.account + ", or " + std::to_string(limits.others) +
                              " of accounts other than root, already; try again later");
        return;
    }
    const std::uint64_t id = ++lastId_;
    auto connection = std::make_unique<Connection>(*this, id, std::move(socket), std::move(*peer));
    int failed = sd_event_add_io(event_, &connection->io, connection->socket.get(), EPOLLIN,
                                 onConnection, connection.get());
    if (failed >= 0) {
        failed = sd_event_add_time_relative(event_, &connection->deadline, CLOCK_MONOTONIC,
                                            microsecondsOf(kFrameDeadline), 100000, onFrameDeadline,
                                            connection.get());
    }
    if (failed < 0) {
        ::syslog(LOG_ERR, "could not watch a client's connection: %s", std::strerror(-failed));
        return;
    }
    connections_.emplace(id, std::move(connection));
}

// The top of everything a connection's events do: whatever escapes is logged, and the client is
// told and closed.
int ControlServer::onConnection(sd_event_source*, int, std::uint32_t revents, void* which) {
    Connection& connection = *static_cast<Connection*>(which);
    ControlServer& server = connection.server;
    try {
        if ((revents & EPOLLOUT) != 0) {
            server.flush(connection);
        }
        if (!connection.dead && (revents & (EPOLLHUP | EPOLLERR)) != 0 && connection.busy) {
            // Gone while its call runs: the call goes on, its answers are dropped.
            connection.dead = true;
        } else if (!connection.dead && !connection.busy && !connection.closing &&
                   (revents & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
            server.readRequests(connection);
        }
    } catch (...) {
        const std::string what = describeCurrentException();
        ::syslog(LOG_ERR, "velnord could not answer a client: %s", what.c_str());
        server.sendThenClose(connection, errorReply("velnord could not answer: " + what));
    }
    server.settle(connection);
    return 0;
}

int ControlServer::onFrameDeadline(sd_event_source*, std::uint64_t, void* which) {
    Connection& connection = *static_cast<Connection*>(which);
    // Closing, it still had not taken its last reply: it is dropped.
    connection.dead = connection.dead || connection.closing;
    if (!connection.dead) {
        connection.server.sendThenClose(
            connection, errorReply("no whole request came within " +
                                   std::to_string(kFrameDeadline.count()) + " seconds"));
    }
    connection.server.settle(connection);
    return 0;
}

// Reads the requests that have come whole and answers each, until one must wait for the worker
// or the rest has not come yet.
void ControlServer::tellMalformed() const {
    if (malformed_) {
        malformed_();
    }
}

void ControlServer::readRequests(Connection& connection) {
    while (!connection.dead && !connection.busy && !connection.closing) {
        Result<std::optional<ReceivedFrame>> request =
            connection.reader.readAvailable(connection.socket.get());
        if (!request) {
            if (request.error() == EPROTO) {
                tellMalformed();
                sendThenClose(connection, errorReply(request.message()));
            } else {
                connection.dead = true;
            }
            return;
        }
        if (!*request) {
            return;
        }
        answer(connection, **request);
    }
}

void ControlServer::answer(Connection& connection, ReceivedFrame& request) {
    const PlistValue* version = request.message.find("version");
    if (version == nullptr || version->asInteger() != kProtocolVersion) {
        tellMalformed();
        sendThenClose(connection, errorReply("velnord speaks protocol version " +
                                             std::to_string(kProtocolVersion) + " only"));
        return;
    }
    AdmissionDecision decision = admissionOf(connection.peer.caller, request.message);
    switch (decision.kind) {
        case AdmissionDecision::Kind::Serve:
            serveRequest(connection, request);
            return;
        case AdmissionDecision::Kind::Refuse:
            refuseRequest(connection, request, decision, decision.refusal);
            return;
        case AdmissionDecision::Kind::Ask:
            askPolkit(connection, request, std::move(decision));
            return;
    }
}

void ControlServer::serveRequest(Connection& connection, ReceivedFrame& request) {
    if (request.message.contains("run")) {
        startCommandLine(connection, request);
        return;
    }
    answerCall(connection, request.message);
}

// The question goes out and the loop serves on; the answer comes back through the inbox, like a
// call's outcome, to a connection that may have gone meanwhile.
void ControlServer::askPolkit(Connection& connection, ReceivedFrame& request,
                              AdmissionDecision decision) {
    if (!peerStillRuns(connection.peer)) {
        refuseRequest(connection, request, decision,
                      endedProcessRefusal(decision, connection.peer.caller));
        return;
    }
    // No request is read, and no deadline runs, while polkit decides.
    connection.busy = true;
    sd_event_source_set_enabled(connection.deadline, SD_EVENT_OFF);
    connection.pending = std::move(request);
    connection.decision = std::move(decision);
    connection.question = polkit_->check(
        connection.peer, actionId(connection.decision.action),
        [this, id = connection.id](PolkitVerdict verdict) {
            inbox_.post([this, id, verdict = std::move(verdict)] { decide(id, verdict); });
        });
}

void ControlServer::decide(std::uint64_t id, const PolkitVerdict& verdict) {
    auto found = connections_.find(id);
    if (found == connections_.end()) {
        return;
    }
    Connection& connection = *found->second;
    connection.busy = false;
    connection.question = PolkitQuestion();
    std::optional<ReceivedFrame> request = std::move(connection.pending);
    connection.pending.reset();
    if (!connection.dead && request) {
        if (std::optional<std::string> refusal =
                refusalFor(verdict, connection.decision, connection.peer)) {
            refuseRequest(connection, *request, connection.decision, *refusal);
        } else {
            serveRequest(connection, *request);
        }
    }
    settle(connection);
}

// The refusal is reported, and told: on the client's own standard error for a command line, as
// any failure of its command would be, else as the protocol's error. Nothing runs.
void ControlServer::refuseRequest(Connection& connection, ReceivedFrame& request,
                                  const AdmissionDecision& decision, const std::string& refusal) {
    if (report_) {
        const std::string_view action = decision.kind == AdmissionDecision::Kind::Ask
                                            ? actionId(decision.action)
                                            : std::string_view();
        report_(connection.peer.caller, decision.verb, action, refusal);
    }
    if (request.message.contains("run") && request.passed.size() == kClientDescriptors) {
        startCommandLine(connection, request, refusal);
        return;
    }
    sendThenClose(connection, errorReply(refusal, kExitNotRoot));
}

void ControlServer::answerCall(Connection& connection, const PlistDictionary& request) {
    const std::string* name = textAt(request, "operation");
    if (name == nullptr) {
        sendThenClose(connection, errorReply("a request names its \"operation\""));
        return;
    }
    const HostOperation* operation = findOperation(plugin_, *name);
    if (operation == nullptr) {
        send(connection, errorReply("the plug-in has no operation \"" + *name + "\"", kExitUsage));
        return;
    }
    if (request.contains("describe")) {
        send(connection, PlistDictionary{{"kind", PlistValue("style")},
                                         {"style", PlistValue(styleName(operation->style))}});
        return;
    }
    // A client that knows the style it prepared its argument for says so, and is told, as the
    // in-process host would tell it, when the operation has another.
    if (const std::string* expected = textAt(request, "style");
        expected != nullptr && *expected != styleName(operation->style)) {
        send(connection,
             errorReply("the plug-in's " + *name + " is a " + styleName(operation->style) +
                            " operation, which this command cannot call",
                        kExitUnavailable));
        return;
    }
    Result<OperationArgument> argument = argumentOfRequest(request, operation->style);
    if (!argument) {
        sendThenClose(connection, errorReply(argument.message()));
        return;
    }
    if (!worker_.submit(*operation, std::move(*argument),
                        std::make_shared<LoopCallSink>(*this, connection.id))) {
        sendThenClose(connection, errorReply("velnord is stopping; the call was not run"));
        return;
    }
    // No request is read, and no deadline runs, until the call is answered.
    connection.busy = true;
    sd_event_source_set_enabled(connection.deadline, SD_EVENT_OFF);
}

void ControlServer::deliverMessage(std::uint64_t id, int priority, const std::string& text) {
    auto found = connections_.find(id);
    if (found == connections_.end() || found->second->dead) {
        return;
    }
    send(*found->second, {{"kind", PlistValue("log")},
                          {"priority", PlistValue::integer(priority)},
                          {"message", PlistValue(text)}});
    settle(*found->second);
}

void ControlServer::deliverOutcome(std::uint64_t id, const std::optional<Outcome>& outcome) {
    auto found = connections_.find(id);
    if (found == connections_.end()) {
        return;
    }
    Connection& connection = *found->second;
    connection.busy = false;
    if (!connection.dead) {
        if (!outcome) {
            sendThenClose(connection, errorReply("velnord is stopping; the call was not run"));
        } else {
            send(connection, outcomeReply(*outcome));
            awaitRequest(connection);
            // The next request may have come already.
            readRequests(connection);
        }
    }
    settle(connection);
}

// The daemon waits for the connection's next request, or for it to take its last reply, for at
// most the frame deadline.
void ControlServer::awaitRequest(Connection& connection) {
    sd_event_source_set_time_relative(connection.deadline, microsecondsOf(kFrameDeadline));
    sd_event_source_set_enabled(connection.deadline, SD_EVENT_ONESHOT);
}

// A command line runs on a thread of its own: it writes to the client's standard output and
// error, which may block for as long as the client reads nothing, and neither the loop nor the
// worker may wait on that. The connection is the thread's from here on.
void ControlServer::startCommandLine(Connection& connection, ReceivedFrame& request,
                                     std::optional<std::string> refusal) {
    std::optional<std::vector<std::string>> arguments = runArgumentsOf(request.message);
    if (!arguments || request.passed.size() != kClientDescriptors) {
        sendThenClose(connection,
                      errorReply("a command line's request carries its arguments and " +
                                 std::to_string(kClientDescriptors) +
                                 " descriptors: standard input, output, error and the working "
                                 "folder"));
        return;
    }
    const Caller& caller = connection.peer.caller;
    ClientCommand client{std::move(*arguments),
                         std::nullopt,
                         std::move(request.passed),
                         caller.pid,
                         connection.socket.get(),
                         caller,
                         caller.isRoot() ? WorkerLane::Root : WorkerLane::Others};
    if (const PlistValue* plugin = request.message.find("plugin")) {
        const std::string* path = bytesOf(*plugin);
        client.pluginFromEnvironment = path ? std::optional<std::string>(*path) : std::nullopt;
    }
    if (!caller.isRoot()) {
        // Its verbs write to its standard output and error only: no file is read on its behalf,
        // from its working folder or its standard input.
        client.descriptors[0].reset();
        client.descriptors[3].reset();
    }
    struct CommandLine {
        ClientCommand client;
        UniqueFd socket;
    };
    auto commandLine =
        std::make_shared<CommandLine>(std::move(client), std::move(connection.socket));
    connection.dead = true;
    // The command line keeps the connection's place among its account's until it ends.
    connection.counted = false;
    commandLines_.run([this, commandLine, uid = caller.uid, refusal = std::move(refusal)] {
        runCommandLine(commandLine->client, commandLine->socket.get(), refusal);
        inbox_.post([this, uid] { caps_.give(uid); });
    });
}

// The top of a command line's work: what escapes the command is logged, and the client is told.
void ControlServer::runCommandLine(const ClientCommand& client, int socket,
                                   const std::optional<std::string>& refusal) {
    PlistDictionary reply;
    try {
        std::optional<int> status = refusal
                                        ? refuseClientCommand(client, *refusal)
                                        : runClientCommand(client, plugin_, pluginPath_, worker_);
        // A command line is the connection's last request: the client ends once told.
        reply = status ? PlistDictionary{{"kind", PlistValue("exit")},
                                         {"status", PlistValue::integer(*status)}}
                       : PlistDictionary{{"kind", PlistValue("direct")}};
    } catch (...) {
        const std::string what = describeCurrentException();
        ::syslog(LOG_ERR, "velnord could not run a command line: %s", what.c_str());
        reply = errorReply("velnord could not run the command: " + what, kExitUnavailable);
    }
    (void)writeFrame(socket, reply);
}

void ControlServer::send(Connection& connection, const PlistDictionary& message) {
    if (connection.dead) {
        return;
    }
    connection.unsent += encodedFrame(message);
    flush(connection);
    if (connection.unsent.size() > kMostUnsent) {
        ::syslog(LOG_WARNING, "dropped a client (pid %d) that read none of %zu bytes of replies",
                 static_cast<int>(connection.peer.caller.pid), connection.unsent.size());
        connection.dead = true;
    }
}

// The reply gets as long as a request would to be taken; a client that takes nothing is dropped
// then.
void ControlServer::sendThenClose(Connection& connection, const PlistDictionary& message) {
    send(connection, message);
    connection.closing = true;
    awaitRequest(connection);
}

// Writes what the socket takes now; the rest waits for the socket to be writable.
void ControlServer::flush(Connection& connection) {
    std::size_t done = 0;
    while (!connection.dead && done < connection.unsent.size()) {
        const ssize_t count = ::send(connection.socket.get(), connection.unsent.data() + done,
                                     connection.unsent.size() - done, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            break;
        }
        if (count < 0) {
            // The client has gone; a call of its still running finishes unheard.
            connection.dead = true;
            break;
        }
        done += static_cast<std::size_t>(count);
    }
    connection.unsent.erase(0, done);
}

// After every event of a connection: drops it when it is done with, else watches for what it
// waits for now.
void ControlServer::settle(Connection& connection) {
    const bool over = connection.closing && connection.unsent.empty();
    if (connection.dead || over) {
        if (!connection.busy) {
            connections_.erase(connection.id);
            return;
        }
        // Its call's answers are still to come through the inbox, which then drops it.
        connection.dead = true;
        sd_event_source_set_enabled(connection.io, SD_EVENT_OFF);
        sd_event_source_set_enabled(connection.deadline, SD_EVENT_OFF);
        return;
    }
    std::uint32_t events = connection.unsent.empty() ? 0U : std::uint32_t{EPOLLOUT};
    if (!connection.busy && !connection.closing) {
        events |= EPOLLIN;
    }
    sd_event_source_set_io_events(connection.io, events);
}

}  // namespace velnor::host
