// The threads that run clients' command lines. A command line writes to the client's own
// standard output and error, which block for as long as the client reads nothing, so each runs
// on a thread of its own and neither the event loop nor the worker ever waits on a client. A few
// threads are kept waiting between command lines: on a busy processor a new thread waits its
// turn for longer than a whole status takes, while a waiting one is woken at once.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>

namespace velnor::host {

class CommandRunners {
  public:
    // Starts spare threads, and keeps as many waiting once a burst has passed.
    explicit CommandRunners(std::size_t spare);
    ~CommandRunners();
    CommandRunners(const CommandRunners&) = delete;
    CommandRunners& operator=(const CommandRunners&) = delete;

    // Runs work on a waiting thread, or on a new one when none waits. What work throws is
    // logged; work that must answer someone catches for itself.
    void run(std::function<void()> work);

    // The command lines handed over and not yet finished.
    std::size_t busy() const;

    // Lets every command line handed over finish, then ends the threads.
    void stop();

  private:
    void startThread();
    void serve();

    const std::size_t spare_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable allGone_;
    std::deque<std::function<void()>> work_;
    std::size_t threads_ = 0;
    std::size_t waiting_ = 0;
    std::size_t busy_ = 0;
    bool stopping_ = false;
};

}  // namespace velnor::host
