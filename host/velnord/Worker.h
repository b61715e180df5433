// The daemon's one worker: the only thread that ever enters the plug-in. It runs a queue, in the
// order things were handed to it: clients' calls, the state queries at stop deadlines that the
// event loop's timer hands it, and the idle ticks, which it keeps the time of itself: its wait
// for the next job ends when a tick is due, so that a tick in the settled state costs one
// wake-up.
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
#include "Metrics.h"
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
    // no-ops); a tick is due every idleInterval, an interval after the last one took its place in
    // the queue. pendingStops tells, after each call, which stopping jobs need a state query at
    // their deadline; empty for none; the earliest goes to stopDeadline. The worker holds
    // hostLock around each entry into the plug-in and the host library, and lets go between
    // them, so that a velnor run with --direct takes its turn between two calls. Each entry into
    // the plug-in is told to metrics, when given.
    Worker(const PluginDescriptor& plugin, const HostLock& hostLock,
           const HostOperation* idleOperation, std::chrono::microseconds idleInterval,
           WorkerReport report, PendingStopsSource pendingStops, StopDeadlineReport stopDeadline,
           Metrics* metrics = nullptr);
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
    // A guard, when given, runs in the call's turn under the host lock just before the plug-in
    // is entered; when it fails, the call is not made, its failure goes to refused, and the
    // outcome is nothing.
    std::optional<Outcome> call(const HostOperation& operation, OperationArgument argument,
                                std::function<void(int, const std::string&)> relay,
                                std::function<support::Status()> guard = {},
                                std::optional<support::Failure>* refused = nullptr,
                                WorkerLane lane = WorkerLane::Root);

    // Queues the state query that ends the stop of label, past its ExitTimeOut.
    void queueStopQuery(std::string label);

    // Hands a log message to the sink of the call running now, if any; on the worker's thread.
    void relay(int priority, const std::string& message);

    WorkerCounts counts() const;

    // The figures that each entry into the plug-in is told to; nullptr when none.
    const Metrics* metrics() const { return metrics_; }

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
        // Set only by call(): see there.
        std::function<support::Status()> guard = {};
        std::optional<support::Failure>* refused = nullptr;
    };

    bool push(Job job);
    void loop();
    void queueTickWhenDue(std::chrono::steady_clock::time_point& due);
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
    const std::chrono::microseconds idleInterval_;
    WorkerReport report_;
    PendingStopsSource pendingStops_;
    StopDeadlineReport stopDeadline_;
    Metrics* metrics_;

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
