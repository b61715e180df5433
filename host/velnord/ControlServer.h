// The daemon's event loop, on its main thread: the control socket and each connection's reads
// and writes (all non-blocking), the stop deadline's timer and SIGTERM and SIGINT. It never enters
// the plug-in and never waits: calls go to the worker's queue, and what the worker answers comes
// back through the loop's inbox. A command line, which writes to the client's own descriptors and
// may block on them, runs on a thread of its own.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Admission.h"
#include "Caller.h"
#include "ClientCommand.h"
#include "CommandRunners.h"
#include "FrameReader.h"
#include "PluginInterface.h"
#include "PolkitAuthority.h"
#include "Result.h"
#include "UniqueFd.h"
#include "Worker.h"

typedef struct sd_event sd_event;
typedef struct sd_event_source sd_event_source;
struct signalfd_siginfo;

namespace velnor::host {

// Binds and listens on the socket at path, in a folder that is root's and that no one else may
// write to (created 0755 when missing), the socket itself root's and 0666: every account may
// connect, and each request is admitted on its own. A socket that a
// daemon before left behind is replaced when it is root's; anything else in its place (a link,
// a file, another account's socket) is refused.
support::Result<support::UniqueFd> listenOnControlSocket(const std::string& path);

// Work handed to the loop's thread from any other: each closure runs there, in the order posted.
class LoopInbox {
  public:
    LoopInbox();
    // The descriptor that is readable while something waits.
    int descriptor() const { return wake_.get(); }
    void post(std::function<void()> work);
    // Runs what was posted; what throws is logged and skipped.
    void drain();

  private:
    support::UniqueFd wake_;
    std::mutex mutex_;
    std::deque<std::function<void()>> posted_;
};

// How long a client has, once the daemon waits for its next request, to send it whole: one that
// sends nothing, or dribbles, is closed then and holds nothing.
inline constexpr std::chrono::seconds kFrameDeadline{5};

// Told of every request refused before it ran: who asked, the verb ("start", "call ..."), the
// polkit action it needed (empty when none would have let it through) and the words the client
// was told. On the loop's thread: it returns at once.
using RefusalReport = std::function<void(const Caller& caller, std::string_view verb,
                                         std::string_view action, std::string_view reason)>;

class ControlServer {
  public:
    // pluginPath is the file that plugin was loaded from: a command line that asks for another
    // is left to the client to run in its own process. Each refusal is told to report.
    static support::Result<std::unique_ptr<ControlServer>> create(const PluginDescriptor& plugin,
                                                                  std::string pluginPath,
                                                                  Worker& worker, LoopInbox& inbox,
                                                                  support::UniqueFd listener,
                                                                  RefusalReport report);
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Serves until SIGTERM or SIGINT (blocked in every thread beforehand); then stops accepting
    // and returns. Connections still open are ended by finish().
    support::Status serve();

    // Once the worker has stopped: answers what it answered last, ends every connection and
    // waits for the command lines still running.
    void finish();

    // Rearms the stop deadline's timer; on the loop's thread.
    void setStopDeadline(std::optional<StopDeadline> deadline);

    // Told, on the loop's thread, of every frame refused as malformed (not a whole request of
    // this protocol); such frames are counted, not recorded, so a flood of them costs no flush.
    void reportMalformedTo(std::function<void()> report) { malformed_ = std::move(report); }

  private:
    struct Connection;
    class LoopCallSink;

    ControlServer(const PluginDescriptor& plugin, std::string pluginPath, Worker& worker,
                  LoopInbox& inbox, support::UniqueFd listener, RefusalReport report);
    support::Status watch();

    static int onListener(sd_event_source*, int, std::uint32_t, void* self);
    static int onConnection(sd_event_source*, int, std::uint32_t revents, void* connection);
    static int onFrameDeadline(sd_event_source*, std::uint64_t, void* connection);
    static int onInbox(sd_event_source*, int, std::uint32_t, void* self);
    static int onStopDeadline(sd_event_source*, std::uint64_t, void* self);
    static int onStopSignal(sd_event_source*, const ::signalfd_siginfo*, void* self);

    void acceptConnections();
    void admit(support::UniqueFd socket);
    void readRequests(Connection& connection);
    void tellMalformed() const;
    void answer(Connection& connection, ReceivedFrame& request);
    void serveRequest(Connection& connection, ReceivedFrame& request);
    void askPolkit(Connection& connection, ReceivedFrame& request, AdmissionDecision decision);
    void decide(std::uint64_t id, const PolkitVerdict& verdict);
    void refuseRequest(Connection& connection, ReceivedFrame& request,
                       const AdmissionDecision& decision, const std::string& refusal);
    void answerCall(Connection& connection, const PlistDictionary& request);
    void startCommandLine(Connection& connection, ReceivedFrame& request,
                          std::optional<std::string> refusal = std::nullopt);
    void runCommandLine(const ClientCommand& client, int socket,
                        const std::optional<std::string>& refusal);
    void send(Connection& connection, const PlistDictionary& message);
    void sendThenClose(Connection& connection, const PlistDictionary& message);
    void flush(Connection& connection);
    void awaitRequest(Connection& connection);
    void settle(Connection& connection);
    void deliverMessage(std::uint64_t id, int priority, const std::string& text);
    void deliverOutcome(std::uint64_t id, const std::optional<Outcome>& outcome);

    const PluginDescriptor& plugin_;
    const std::string pluginPath_;
    Worker& worker_;
    LoopInbox& inbox_;
    support::UniqueFd listener_;
    sd_event* event_ = nullptr;
    sd_event_source* listenerSource_ = nullptr;
    sd_event_source* inboxSource_ = nullptr;
    sd_event_source* stopTimer_ = nullptr;
    std::optional<StopDeadline> stopDeadline_;
    std::uint64_t lastId_ = 0;
    RefusalReport report_;
    std::function<void()> malformed_;
    ConnectionCaps caps_;
    std::unique_ptr<PolkitAuthority> polkit_;
    std::map<std::uint64_t, std::unique_ptr<Connection>> connections_;
    CommandRunners commandLines_;
};

}  // namespace velnor::host
