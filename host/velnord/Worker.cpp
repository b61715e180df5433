#include "Worker.h"

namespace velnor::host {

Worker::Worker(const PluginDescriptor& plugin, const HostOperation* idleOperation,
               Clock::duration idleInterval, WorkerReport report)
    : plugin_(plugin),
      idleOperation_(idleOperation),
      idleInterval_(idleInterval),
      report_(std::move(report)),
      nextTick_(Clock::now() + idleInterval) {
    thread_ = std::thread([this] { loop(); });
}

Worker::~Worker() {
    stop();
}

std::optional<Outcome> Worker::call(const HostOperation& operation, OperationArgument argument,
                                    std::function<void(int, const std::string&)> relay) {
    std::future<std::optional<Outcome>> done;
    {
        std::lock_guard lock(mutex_);
        if (stopping_) {
            return std::nullopt;
        }
        queue_.push_back(Job{&operation, std::move(argument), std::move(relay), Clock::now(), {}});
        done = queue_.back().done.get_future();
    }
    wake_.notify_one();
    return done.get();
}

void Worker::relay(int priority, const std::string& message) {
    if (currentRelay_) {
        currentRelay_(priority, message);
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

// A tick is due once its time has come, unless a call that arrived before that time waits.
// Called with the mutex held.
bool Worker::tickIsDue() const {
    return idleOperation_ != nullptr && Clock::now() >= nextTick_ &&
           (queue_.empty() || queue_.front().arrived > nextTick_);
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
        if (queue_.empty()) {
            if (idleOperation_ != nullptr) {
                wake_.wait_until(lock, nextTick_);
            } else {
                wake_.wait(lock);
            }
            continue;
        }
        Job job = std::move(queue_.front());
        queue_.pop_front();
        lock.unlock();
        runJob(job);
        lock.lock();
    }
    // Calls that never had their turn are told so; their clients hear that the daemon stops.
    for (Job& job : queue_) {
        job.done.set_value(std::nullopt);
    }
    queue_.clear();
}

void Worker::tick() {
    Outcome outcome = callWithNewHandler(plugin_, *idleOperation_, idleCount_);
    // The count goes round as a signed 32-bit integer does, without overflowing one.
    idleCount_ = static_cast<std::int32_t>(static_cast<std::uint32_t>(idleCount_) + 1U);
    nextTick_ = Clock::now() + idleInterval_;
    if (report_) {
        report_(outcome.answered ? "idle tick" : "idle tick failed: " + outcome.failure);
    }
}

void Worker::runJob(Job& job) {
    currentRelay_ = std::move(job.relay);
    Outcome outcome = callWithNewHandler(plugin_, *job.operation, job.argument);
    currentRelay_ = nullptr;
    if (report_) {
        report_(job.operation->name);
    }
    job.done.set_value(std::move(outcome));
}

}  // namespace velnor::host
