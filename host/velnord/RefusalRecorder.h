// Refusals go to the audit trail off the event loop: a record is flushed to disk before it counts
// as written, and an account that sends refused request after refused request must not make root
// wait on those flushes. The loop hands each refusal over and returns; one thread of its own
// writes them in turn.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "Caller.h"

namespace velnor::host {

class RefusalRecorder {
  public:
    RefusalRecorder();
    // Writes what was handed over still, then ends the thread.
    ~RefusalRecorder();
    RefusalRecorder(const RefusalRecorder&) = delete;
    RefusalRecorder& operator=(const RefusalRecorder&) = delete;

    // Hands the refusal to the recording thread and returns at once. Past kMostWaiting records
    // waiting, the refusal is only logged: a flood is told in the system log, never held in
    // memory without bound.
    void record(const Caller& caller, std::string_view verb, std::string_view action,
                std::string_view reason);

    static constexpr std::size_t kMostWaiting = 1024;

  private:
    struct Refusal {
        Caller caller;
        std::string verb;
        std::string action;
        std::string reason;
    };
    void run();

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Refusal> waiting_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace velnor::host
