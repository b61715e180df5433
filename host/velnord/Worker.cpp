#include "Worker.h"

#include <syslog.h>

#include <algorithm>

#include "LaunchDaemon.h"

namespace velnor::host {
namespace {

// A stop still pending once its deadline's query has run means that its process survived the
// SIGKILL; it is asked about again after this long rather than at once, over and over.
constexpr std::chrono::seconds kStopRetry{1};

// Watches for a short call's end before sleeping on it: on this kind of machine, putting a
// thread to sleep and waking it costs more than a state report itself.
void awaitBriefly(const std::atomic<bool>& ended) {
    constexpr auto kWatched = std::chrono::microseconds(300);
    const auto until = std::chrono::steady_clock::now() + kWatched;
    while (!ended.load(std::memory_order_acquire) && std::chrono::steady_clock::now() < until) {
        __builtin_ia32_pause();
    }
}

// Passes the call's messages to relay as they come, until the worker has closed the mailbox.
void deliver(Worker::Mailbox& mailbox, const std::function<void(int, const std::string&)>& relay) {
    std::unique_lock lock(mailbox.mutex);
    for (;;) {
        mailbox.changed.wait(lock,
                             [&mailbox] { return mailbox.closed || !mailbox.messages.empty(); });
        std::deque<std::pair<int, std::string>> taken;
        taken.swap(mailbox.messages);
        const bool closed = mailbox.closed;
        lock.unlock();
        for (const auto& [priority, message] : taken) {
            if (relay) {
                relay(priority, message);
            }
        }
        if (closed) {
            return;
        }
        lock.lock();
    }
}

}  // namespace

Worker::Worker(const PluginDescriptor& plugin, const HostLock& hostLock,
               const HostOperation* idleOperation, Clock::duration idleInterval,
               WorkerReport report, PendingStopsSource pendingStops)
    : plugin_(plugin),
      hostLock_(hostLock),
      idleOperation_(idleOperation),
      idleInterval_(idleInterval),
      report_(std::move(report)),
      pendingStops_(std::move(pendingStops)),
      nextTick_(Clock::now() + idleInterval) {
    // A stop that a host before this one began is seen to its end too.
    learnStopDeadline({});
    thread_ = std::thread([this] { loop(); });
}

Worker::~Worker() {
    stop();
}

std::optional<Outcome> Worker::call(const HostOperation& operation, OperationArgument argument,
                                    std::function<void(int, const std::string&)> relay) {
    std::future<std::optional<Outcome>> done;
    auto mailbox = std::make_shared<Mailbox>();
    bool next = false;
    {
        std::lock_guard lock(mutex_);
        if (stopping_) {
            return std::nullopt;
        }
        // A call that finds the worker idle runs at once; one that queues behind others waits
        // asleep, so that the waiting callers never take the worker's processor from it.
        next = queue_.empty() && !running_;
        queue_.push_back(Job{&operation, std::move(argument), mailbox, Clock::now(), {}, 0, {}});
        done = queue_.back().done.get_future();
    }
    wake_.notify_one();
    if (next) {
        awaitBriefly(mailbox->ended);
    }
    deliver(*mailbox, relay);
    return done.get();
}

std::optional<Worker::Clock::duration> Worker::runTicks(std::int64_t count) {
    std::future<std::optional<Clock::duration>> ticked;
    {
        std::lock_guard lock(mutex_);
        if (stopping_ || idleOperation_ == nullptr) {
            return std::nullopt;
        }
        queue_.push_back(Job{nullptr, {}, {}, Clock::now(), {}, count, {}});
        ticked = queue_.back().ticked.get_future();
    }
    wake_.notify_one();
    return ticked.get();
}

WorkerCounts Worker::counts() const {
    std::lock_guard lock(countsMutex_);
    return counts_;
}

void Worker::relay(int priority, const std::string& message) {
    if (currentMailbox_) {
        currentMailbox_->post(priority, message);
    }
}

void Worker::Mailbox::post(int priority, const std::string& message) {
    {
        std::lock_guard lock(mutex);
        messages.emplace_back(priority, message);
    }
    changed.notify_one();
}

void Worker::Mailbox::close() {
    {
        std::lock_guard lock(mutex);
        closed = true;
    }
    ended.store(true, std::memory_order_release);
    changed.notify_one();
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

// Something timed is due once its moment has come, unless a call that arrived before that
// moment waits. Called with the mutex held.
bool Worker::isDue(Clock::time_point moment) const {
    return Clock::now() >= moment && (queue_.empty() || queue_.front().arrived > moment);
}

bool Worker::tickIsDue() const {
    return idleOperation_ != nullptr && isDue(nextTick_);
}

bool Worker::stopQueryIsDue() const {
    return stopDeadline_ && isDue(stopDeadline_->at);
}

// Sleeps until a call arrives, the next tick or the next stop's deadline.
void Worker::waitForWork(std::unique_lock<std::mutex>& lock) {
    std::optional<Clock::time_point> wakeAt;
    if (idleOperation_ != nullptr) {
        wakeAt = nextTick_;
    }
    if (stopDeadline_) {
        wakeAt = wakeAt ? std::min(*wakeAt, stopDeadline_->at) : stopDeadline_->at;
    }
    if (wakeAt) {
        wake_.wait_until(lock, *wakeAt);
    } else {
        wake_.wait(lock);
    }
}

void Worker::loop() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        if (tickIsDue()) {
            lock.unlock();
            tick();
            lock.lock();
            continue;
        }
        if (stopQueryIsDue()) {
            lock.unlock();
            queryStopAtDeadline();
            lock.lock();
            continue;
        }
        if (queue_.empty()) {
            waitForWork(lock);
            continue;
        }
        Job job = std::move(queue_.front());
        queue_.pop_front();
        running_ = true;
        lock.unlock();
        if (job.operation == nullptr) {
            runTicks(job);
        } else {
            runJob(job);
        }
        lock.lock();
        running_ = false;
    }
    // Calls that never had their turn are told so; their clients hear that the daemon stops.
    for (Job& job : queue_) {
        if (job.operation == nullptr) {
            job.ticked.set_value(std::nullopt);
        } else {
            job.done.set_value(std::nullopt);
            job.mailbox->close();
        }
    }
    queue_.clear();
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

// Every entry into the plug-in goes through here, with the host lock held, so that an overlap
// would be counted.
Outcome Worker::enterPlugin(const HostOperation& operation, const OperationArgument& argument) {
    const bool overlapped = inside_.fetch_add(1) != 0;
    Outcome outcome = callWithNewHandler(plugin_, operation, argument);
    inside_.fetch_sub(1);
    std::lock_guard lock(countsMutex_);
    counts_.overlaps += overlapped ? 1 : 0;
    ++(operation.style == OperationStyle::Idle ? counts_.ticks : counts_.calls);
    return outcome;
}

void Worker::tick() {
    // A tick is housekeeping that an in-process host holding the lock does in its own call: it
    // waits for the next interval rather than for that call.
    std::optional<HostLock::Held> held = hostLock_.holdIfFree();
    if (!held) {
        nextTick_ = Clock::now() + idleInterval_;
        return;
    }
    Outcome outcome = enterPlugin(*idleOperation_, idleCount_);
    // The count goes round as a signed 32-bit integer does, without overflowing one.
    idleCount_ = static_cast<std::int32_t>(static_cast<std::uint32_t>(idleCount_) + 1U);
    nextTick_ = Clock::now() + idleInterval_;
    if (report_) {
        report_(outcome.answered ? "idle tick" : "idle tick failed: " + outcome.failure);
    }
}

void Worker::runTicks(Job& job) {
    const Clock::time_point began = Clock::now();
    for (std::int64_t done = 0; done < job.ticks; ++done) {
        tick();
    }
    job.ticked.set_value(Clock::now() - began);
}

void Worker::runJob(Job& job) {
    currentMailbox_ = job.mailbox;
    Outcome outcome;
    if (support::Result<HostLock::Held> held = holdHostLock()) {
        outcome = enterPlugin(*job.operation, job.argument);
    } else {
        outcome.failure = held.message();
    }
    currentMailbox_ = nullptr;
    if (report_) {
        report_(job.operation->name);
    }
    job.done.set_value(std::move(outcome));
    job.mailbox->close();
    // A stop, restart or settings change may have asked the job to stop.
    learnStopDeadline({});
}

// The query finds the job past its ExitTimeOut and kills what is left of it.
void Worker::queryStopAtDeadline() {
    std::string label;
    {
        std::lock_guard lock(mutex_);
        label = stopDeadline_->label;
    }
    if (support::Result<HostLock::Held> held = holdHostLock()) {
        GetLaunchDaemonServiceState(label);
    } else {
        syslog(LOG_ERR, "%s", held.message().c_str());
    }
    {
        std::lock_guard lock(countsMutex_);
        ++counts_.stopQueries;
    }
    learnStopDeadline(label);
}

void Worker::learnStopDeadline(const std::string& queriedLabel) {
    std::optional<StopDeadline> earliest;
    const std::vector<PendingStop> pending =
        pendingStops_ ? pendingStops_() : std::vector<PendingStop>{};
    const Clock::time_point now = Clock::now();
    for (const PendingStop& stop : pending) {
        Clock::duration left = std::chrono::milliseconds(stop.millisecondsLeft);
        if (stop.label == queriedLabel && stop.millisecondsLeft == 0) {
            left = kStopRetry;
        }
        if (!earliest || now + left < earliest->at) {
            earliest = StopDeadline{now + left, stop.label};
        }
    }
    std::lock_guard lock(mutex_);
    stopDeadline_ = std::move(earliest);
}

}  // namespace velnor::host
