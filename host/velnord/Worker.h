// The daemon's one worker: the only thread that ever enters the plug-in. It runs the clients'
// calls in the order they arrived and, between them, the idle tick every interval.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "Invocation.h"
#include "PluginInterface.h"

namespace velnor::host {

// Told after each idle tick and each call, on the worker's thread: what ran, and when.
using WorkerReport = std::function<void(const std::string& what)>;

class Worker {
  public:
    using Clock = std::chrono::steady_clock;

    // idleOperation is the plug-in's doIdleAtCount, or nullptr when it has none (no ticks).
    Worker(const PluginDescriptor& plugin, const HostOperation* idleOperation,
           Clock::duration idleInterval, WorkerReport report);
    ~Worker();
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // Runs the call in its turn and waits for it; log messages that the plug-in emits meanwhile
    // go to relay (on the worker's thread). Nothing when the worker stopped before its turn.
    std::optional<Outcome> call(const HostOperation& operation, OperationArgument argument,
                                std::function<void(int, const std::string&)> relay);

    // Passes a log message to the relay of the call running now, if any; on the worker's thread.
    void relay(int priority, const std::string& message);

    // Lets the running call or tick finish, drops the calls still waiting, and ends the thread.
    void stop();

  private:
    struct Job {
        const HostOperation* operation;
        OperationArgument argument;
        std::function<void(int, const std::string&)> relay;
        Clock::time_point arrived;
        std::promise<std::optional<Outcome>> done;
    };

    void loop();
    bool tickIsDue() const;
    void tick();
    void runJob(Job& job);

    const PluginDescriptor& plugin_;
    const HostOperation* idleOperation_;
    const Clock::duration idleInterval_;
    WorkerReport report_;

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Job> queue_;
    bool stopping_ = false;
    Clock::time_point nextTick_;
    // Touched only by the worker's thread.
    std::int32_t idleCount_ = 0;
    std::function<void(int, const std::string&)> currentRelay_;
    std::thread thread_;
};

}  // namespace velnor::host
