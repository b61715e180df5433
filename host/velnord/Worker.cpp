#include "Worker.h"

#include <pthread.h>
#include <syslog.h>

#include <algorithm>
#include <exception>

#include "LaunchDaemon.h"

namespace velnor::host {
namespace {

// True on the worker's own thread: a message logged on any other (a command line's, the web
// console's) belongs to no call that the worker runs.
thread_local bool onWorkerThread = false;

// The sink of a caller that waits: messages and the outcome are kept until the caller's thread
// takes them, so that the worker never waits on it.
class WaitingSink : public CallSink {
  public:
    void message(int priority, const std::string& text) override {
        {
            std::lock_guard lock(mutex_);
            messages_.emplace_back(priority, text);
        }
        changed_.notify_one();
    }

    void finished(std::optional<Outcome> outcome) override {
        {
            std::lock_guard lock(mutex_);
            outcome_ = std::move(outcome);
            done_ = true;
        }
        changed_.notify_one();
    }

    // Passes the messages to relay as they come, then answers the outcome.
    std::optional<Outcome> deliver(const std::function<void(int, const std::string&)>& relay) {
        std::unique_lock lock(mutex_);
        for (;;) {
            changed_.wait(lock, [this] { return done_ || !messages_.empty(); });
            std::deque<std::pair<int, std::string>> taken;
            taken.swap(messages_);
            const bool done = done_;
            lock.unlock();
            for (const auto& [priority, text] : taken) {
                if (relay) {
                    relay(priority, text);
                }
            }
            lock.lock();
            if (done && messages_.empty()) {
                return std::move(outcome_);
            }
        }
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::pair<int, std::string>> messages_;
    std::optional<Outcome> outcome_;
    bool done_ = false;
};

}  // namespace

Worker::Worker(const PluginDescriptor& plugin, const HostLock& hostLock,
               const HostOperation* idleOperation, std::chrono::microseconds idleInterval,
               WorkerReport report, PendingStopsSource pendingStops,
               StopDeadlineReport stopDeadline, Metrics* metrics)
    : plugin_(plugin),
      hostLock_(hostLock),
      idleOperation_(idleOperation),
      idleInterval_(idleInterval),
      report_(std::move(report)),
      pendingStops_(std::move(pendingStops)),
      stopDeadline_(std::move(stopDeadline)),
      metrics_(metrics) {
    // A stop that a host before this one began is seen to its end too.
    queue_.push_back(Job{JobKind::LearnStops, nullptr, {}, nullptr, {}});
    thread_ = std::thread([this] { loop(); });
}

Worker::~Worker() {
    stop();
}

bool Worker::push(Job job) {
    {
        std::lock_guard lock(mutex_);
        if (stopping_) {
            return false;
        }
        // Root's job goes ahead of the calls of other accounts that still wait, behind root's own
        // and the daemon's housekeeping.
        auto place = queue_.end();
        if (job.lane == WorkerLane::Root) {
            place = std::find_if(queue_.begin(), queue_.end(), [](const Job& queued) {
                return queued.lane == WorkerLane::Others;
            });
        }
        queue_.insert(place, std::move(job));
    }
    wake_.notify_one();
    return true;
}

bool Worker::submit(const HostOperation& operation, OperationArgument argument,
                    std::shared_ptr<CallSink> sink, WorkerLane lane) {
    return push(Job{JobKind::Call, &operation, std::move(argument), std::move(sink), {}, lane});
}

std::optional<Outcome> Worker::call(const HostOperation& operation, OperationArgument argument,
                                    std::function<void(int, const std::string&)> relay,
                                    std::function<support::Status()> guard,
                                    std::optional<support::Failure>* refused, WorkerLane lane) {
    auto sink = std::make_shared<WaitingSink>();
    Job job{JobKind::Call, &operation, std::move(argument), sink, {}, lane};
    job.guard = std::move(guard);
    // The caller waits below until the job is done, so refused outlives the job's use of it.
    job.refused = refused;
    if (!push(std::move(job))) {
        return std::nullopt;
    }
    return sink->deliver(relay);
}

void Worker::queueStopQuery(std::string label) {
    push(Job{JobKind::StopQuery, nullptr, {}, nullptr, std::move(label)});
}

WorkerCounts Worker::counts() const {
    std::lock_guard lock(mutex_);
    return counts_;
}

void Worker::relay(int priority, const std::string& message) {
    if (onWorkerThread && current_) {
        current_->message(priority, message);
    }
}

void Worker::stop() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Worker::loop() {
    // Named, so that the thread that runs the plug-in is told from the loop's in ps and top.
    pthread_setname_np(pthread_self(), "velnord worker");
    onWorkerThread = true;
    std::unique_lock lock(mutex_);
    std::chrono::steady_clock::time_point tickDue =
        std::chrono::steady_clock::now() + idleInterval_;
    for (;;) {
        // The wait ends with the next job or when a tick is due, whichever comes first.
        wake_.wait_until(lock, tickDue, [this] { return stopping_ || !queue_.empty(); });
        if (stopping_) {
            break;
        }
        queueTickWhenDue(tickDue);
        if (queue_.empty()) {
            continue;
        }
        Job job = std::move(queue_.front());
        queue_.pop_front();
        tickQueued_ = tickQueued_ && job.kind != JobKind::Tick;
        lock.unlock();
        run(job);
        lock.lock();
    }
    // Calls that never had their turn are told so; their clients hear that the daemon stops.
    std::deque<Job> left;
    left.swap(queue_);
    lock.unlock();
    for (Job& job : left) {
        if (job.sink) {
            job.sink->finished(std::nullopt);
        }
    }
}

// A tick that is due takes its place behind the calls that came before it, unless one still
// waits there, and the next one is due an interval later. Called with the mutex held.
void Worker::queueTickWhenDue(std::chrono::steady_clock::time_point& due) {
    const std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now();
    if (now < due) {
        return;
    }
    if (!tickQueued_) {
        tickQueued_ = true;
        queue_.push_back(Job{JobKind::Tick, nullptr, {}, nullptr, {}});
    }
    due = now + idleInterval_;
}

// The top of every job: whatever escapes it is logged, and a caller is answered with it, so
// that no exception ends the daemon.
void Worker::run(Job& job) {
    try {
        switch (job.kind) {
            case JobKind::Call:
                runCall(job);
                break;
            case JobKind::Tick:
                tick();
                break;
            case JobKind::StopQuery:
                queryStop(job.label);
                break;
            case JobKind::LearnStops:
                learnStopDeadline({});
                break;
        }
    } catch (...) {
        current_ = nullptr;
        const std::string what = describeCurrentException();
        ::syslog(LOG_ERR, "the worker could not finish %s: %s",
                 job.operation != nullptr ? job.operation->name : "its housekeeping", what.c_str());
        if (job.sink) {
            Outcome failed;
            failed.failure = "velnord could not finish the call: " + what;
            job.sink->finished(std::move(failed));
        }
    }
}

// Holds the host lock for one call. An in-process host (velnor --direct) may hold it for its own
// run, which its bounded waits end: the caller and the log are told whom the call waits for.
support::Result<HostLock::Held> Worker::holdHostLock() {
    if (std::optional<HostLock::Held> held = hostLock_.holdIfFree()) {
        return std::move(*held);
    }
    const std::string waiting =
        "waiting for the host lock \"" + hostLock_.path() + "\" held by " + hostLock_.holder();
    syslog(LOG_WARNING, "%s", waiting.c_str());
    relay(LOG_WARNING, waiting);
    return hostLock_.holdOnceFree();
}

// Every entry into the plug-in goes through here, with the host lock held.
Outcome Worker::enterPlugin(const HostOperation& operation, const OperationArgument& argument) {
    if (metrics_ != nullptr) {
        metrics_->operationBegan(operation.name);
    }
    Outcome outcome = callWithNewHandler(plugin_, operation, argument);
    if (metrics_ != nullptr) {
        metrics_->operationEnded(operation.name, operation.style == OperationStyle::Idle, outcome);
    }
    std::lock_guard lock(mutex_);
    ++(operation.style == OperationStyle::Idle ? counts_.ticks : counts_.calls);
    return outcome;
}

void Worker::tick() {
    if (idleOperation_ == nullptr) {
        return;
    }
    // A tick is housekeeping that an in-process host holding the lock does in its own call: it
    // waits for the next interval rather than for that call.
    std::optional<HostLock::Held> held = hostLock_.holdIfFree();
    if (!held) {
        return;
    }
    Outcome outcome = enterPlugin(*idleOperation_, idleCount_);
    held.reset();
    // The count goes round as a signed 32-bit integer does, without overflowing one.
    idleCount_ = static_cast<std::int32_t>(static_cast<std::uint32_t>(idleCount_) + 1U);
    if (report_) {
        report_(outcome.answered ? "idle tick" : "idle tick failed: " + outcome.failure);
    }
}

void Worker::runCall(Job& job) {
    current_ = job.sink;
    Outcome outcome;
    bool guardRefused = false;
    if (support::Result<HostLock::Held> held = holdHostLock()) {
        support::Status allowed = job.guard ? job.guard() : support::Status();
        if (allowed) {
            outcome = enterPlugin(*job.operation, job.argument);
        } else if (job.refused != nullptr) {
            *job.refused = allowed.failure();
            guardRefused = true;
        } else {
            outcome.failure = allowed.message();
        }
    } else {
        outcome.failure = held.message();
    }
    current_ = nullptr;
    if (guardRefused) {
        job.sink->finished(std::nullopt);
        return;
    }
    if (report_) {
        report_(job.operation->name);
    }
    job.sink->finished(std::move(outcome));
    // A stop, restart or settings change may have asked the job to stop.
    learnStopDeadline({});
}

// The query finds the job past its ExitTimeOut and kills what is left of it.
void Worker::queryStop(const std::string& label) {
    if (support::Result<HostLock::Held> held = holdHostLock()) {
        GetLaunchDaemonServiceState(label);
    } else {
        syslog(LOG_ERR, "%s", held.message().c_str());
    }
    {
        std::lock_guard lock(mutex_);
        ++counts_.stopQueries;
    }
    learnStopDeadline(label);
}

void Worker::learnStopDeadline(const std::string& queriedLabel) {
    if (!stopDeadline_) {
        return;
    }
    std::optional<StopDeadline> earliest =
        earliestStopDeadline(pendingStops_ ? pendingStops_() : std::vector<PendingStop>{},
                             queriedLabel, std::chrono::steady_clock::now());
    // Nothing pending before and after: the loop has no timer to change.
    if (!earliest && !deadlineReported_) {
        return;
    }
    deadlineReported_ = earliest.has_value();
    stopDeadline_(std::move(earliest));
}

}  // namespace velnor::host
