// The daemon's one worker: the only thread that ever enters the plug-in. It runs a queue, in the
// order things were handed to it: clients' calls, the idle ticks and the state queries at stop
// deadlines that the event loop's timers hand it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "HostLock.h"
#include "Invocation.h"
#include "LaunchdJobs.h"
#include "PluginInterface.h"
#include "StopDeadline.h"

namespace velnor::host {

// Told after each idle tick and each call, on the worker's thread: what ran.
using WorkerReport = std::function<void(const std::string& what)>;

// The stops whose process still runs, and when each one's ExitTimeOut ends.
using PendingStopsSource = std::function<std::vector<PendingStop>()>;

// Told, on the worker's thread, whenever the earliest stop deadline may have changed.
using StopDeadlineReport = std::function<void(std::optional<StopDeadline>)>;

// Where a call's messages and its outcome go. Called on the worker's thread: an implementation
// hands them on and returns at once, never waiting for a client.
class CallSink {
  public:
    virtual ~CallSink() = default;
    virtual void message(int priority, const std::string& text) = 0;
    // The outcome; nothing when the worker stopped before the call's turn.
    virtual void finished(std::optional<Outcome> outcome) = 0;
};

// Whose call it is: root's calls go before every call of another account still waiting, so that
// no account's load holds root up.
enum class WorkerLane { Root, Others };

// What the worker has run so far: plug-in calls, idle ticks, and the state queries it made when a
// stop's ExitTimeOut ended.
struct WorkerCounts {
    std::uint64_t calls = 0;
    std::uint64_t ticks = 0;
    std::uint64_t stopQueries = 0;
};

class Worker {
  public:
    // idleOperation is the plug-in's doIdleAtCount, or nullptr when it has none (ticks are then
    // no-ops). pendingStops tells, after each call, which stopping jobs need a state query at
    // their deadline; empty for none; the earliest goes to stopDeadline. The worker holds
    // hostLock around each entry into the plug-in and the host library, and lets go between
    // them, so that a velnor run with --direct takes its turn between two calls.
    Worker(const PluginDescriptor& plugin, const HostLock& hostLock,
           const HostOperation* idleOperation, WorkerReport report, PendingStopsSource pendingStops,
           StopDeadlineReport stopDeadline);
    ~Worker();
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Queues the call in its lane; its messages and outcome go to sink. False, with sink told
    // nothing, when the worker is stopping.
    bool submit(const HostOperation& operation, OperationArgument argument,
                std::shared_ptr<CallSink> sink, WorkerLane lane = WorkerLane::Root);

    // Runs the call in its turn and waits for it; log messages that the plug-in emits meanwhile
    // go to relay as they come, on the caller's thread, so that the worker never waits on a
    // client. Nothing when the worker stopped before its turn. For threads that may block.
    std::optional<Outcome> call(const HostOperation& operation, OperationArgument argument,
                                std::function<void(int, const std::string&)> relay,
                                WorkerLane lane = WorkerLane::Root);

    // Queues an idle tick, unless one still waits for its turn.
    void queueTick();

    // Queues the state query that ends the stop of label, past its ExitTimeOut.
    void queueStopQuery(std::string label);

    // Hands a log message to the sink of the call running now, if any; on the worker's thread.
    void relay(int priority, const std::string& message);

    WorkerCounts counts() const;

    // Lets the running call or tick finish, tells the calls still waiting that they were not
    // run, and ends the thread.
    void stop();

  private:
    enum class JobKind { Call, Tick, StopQuery, LearnStops };
    struct Job {
        JobKind kind;
        const HostOperation* operation = nullptr;
        OperationArgument argument;
        std::shared_ptr<CallSink> sink;
        std::string label;
        WorkerLane lane = WorkerLane::Root;
    };

    bool push(Job job);
    void loop();
    void run(Job& job);
    void runCall(Job& job);
    void tick();
    void queryStop(const std::string& label);
    Outcome enterPlugin(const HostOperation& operation, const OperationArgument& argument);
    support::Result<HostLock::Held> holdHostLock();
    void learnStopDeadline(const std::string& queriedLabel);

    const PluginDescriptor& plugin_;
    const HostLock& hostLock_;
    const HostOperation* idleOperation_;
    WorkerReport report_;
    PendingStopsSource pendingStops_;
    StopDeadlineReport stopDeadline_;

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Job> queue_;
    bool stopping_ = false;
    bool tickQueued_ = false;
    WorkerCounts counts_;
    // Touched only by the worker's thread.
    std::int32_t idleCount_ = 0;
    std::shared_ptr<CallSink> current_;
    // The last deadline reported was one, not none.
    bool deadlineReported_ = false;
    std::thread thread_;
};

}  // namespace velnor::host
