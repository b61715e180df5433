// The daemon's one worker: the only thread that ever enters the plug-in. It runs the clients'
// calls in the order they arrived and, between them, the idle tick every interval.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "HostLock.h"
#include "Invocation.h"
#include "LaunchdJobs.h"
#include "PluginInterface.h"

namespace velnor::host {

// Told after each idle tick and each call, on the worker's thread: what ran, and when.
using WorkerReport = std::function<void(const std::string& what)>;

// The stops whose process still runs, and when each one's ExitTimeOut ends.
using PendingStopsSource = std::function<std::vector<PendingStop>()>;

// What the worker has run so far: plug-in calls, idle ticks, the state queries it made when a
// stop's ExitTimeOut ended, and how often a plug-in call began while another was still inside
// (never, as long as the worker is the only thread that calls the plug-in).
struct WorkerCounts {
    std::uint64_t calls = 0;
    std::uint64_t ticks = 0;
    std::uint64_t stopQueries = 0;
    std::uint64_t overlaps = 0;
};

class Worker {
  public:
    using Clock = std::chrono::steady_clock;

    // idleOperation is the plug-in's doIdleAtCount, or nullptr when it has none (no ticks).
    // pendingStops tells, after each call, which stopping jobs need a state query at their
    // deadline; empty for none. The worker holds hostLock around each entry into the plug-in
    // and the host library, and lets go between them, so that a velnor run with --direct takes
    // its turn between two calls.
    Worker(const PluginDescriptor& plugin, const HostLock& hostLock,
           const HostOperation* idleOperation, Clock::duration idleInterval, WorkerReport report,
           PendingStopsSource pendingStops);
    ~Worker();
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Runs the call in its turn and waits for it; log messages that the plug-in emits meanwhile
    // go to relay as they come, on the caller's thread, so that the worker never waits on a
    // client. Nothing when the worker stopped before its turn.
    std::optional<Outcome> call(const HostOperation& operation, OperationArgument argument,
                                std::function<void(int, const std::string&)> relay);

    // Hands a log message to the caller of the call running now, if any; on the worker's thread.
    void relay(int priority, const std::string& message);

    // Runs count idle ticks back to back in the worker's turn, as the interval would run them,
    // and answers how long they took; nothing when the plug-in has no idle operation or the
    // worker stopped before its turn. For measuring the tick.
    std::optional<Clock::duration> runTicks(std::int64_t count);

    WorkerCounts counts() const;

    // Lets the running call or tick finish, drops the calls still waiting, and ends the thread.
    void stop();

    // The log messages of one call on their way from the worker to its caller.
    struct Mailbox {
        std::mutex mutex;
        std::condition_variable changed;
        std::deque<std::pair<int, std::string>> messages;
        bool closed = false;
        // closed, for a caller that watches without the mutex.
        std::atomic<bool> ended{false};

        void post(int priority, const std::string& message);
        void close();
    };

  private:
    struct Job {
        const HostOperation* operation;  // nullptr for a run of ticks
        OperationArgument argument;
        std::shared_ptr<Mailbox> mailbox;
        Clock::time_point arrived;
        std::promise<std::optional<Outcome>> done;
        std::int64_t ticks = 0;
        std::promise<std::optional<Clock::duration>> ticked;
    };
    struct StopDeadline {
        Clock::time_point at;
        std::string label;
    };

    void loop();
    bool isDue(Clock::time_point moment) const;
    bool tickIsDue() const;
    bool stopQueryIsDue() const;
    void waitForWork(std::unique_lock<std::mutex>& lock);
    void tick();
    void runJob(Job& job);
    void runTicks(Job& job);
    Outcome enterPlugin(const HostOperation& operation, const OperationArgument& argument);
    support::Result<HostLock::Held> holdHostLock();
    void queryStopAtDeadline();
    void learnStopDeadline(const std::string& queriedLabel);

    const PluginDescriptor& plugin_;
    const HostLock& hostLock_;
    const HostOperation* idleOperation_;
    const Clock::duration idleInterval_;
    WorkerReport report_;
    PendingStopsSource pendingStops_;

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Job> queue_;
    bool stopping_ = false;
    // A call from the queue is running.
    bool running_ = false;
    Clock::time_point nextTick_;
    // The earliest end of a pending stop's ExitTimeOut; set and read only with the mutex held.
    std::optional<StopDeadline> stopDeadline_;
    mutable std::mutex countsMutex_;
    WorkerCounts counts_;
    std::atomic<int> inside_{0};
    // Touched only by the worker's thread.
    std::int32_t idleCount_ = 0;
    std::shared_ptr<Mailbox> currentMailbox_;
    std::thread thread_;
};

}  // namespace velnor::host
