// A bounded wait: how much of the time it allows is left. Every wait of the host that polls or
// pauses counts down one, on the steady clock, which the wall clock's jumps do not move.
#pragma once

#include <algorithm>
#include <chrono>
#include <climits>

namespace velnor::support {

class Deadline {
  public:
    using Clock = std::chrono::steady_clock;

    explicit Deadline(std::chrono::milliseconds allowed, Clock::time_point from = Clock::now())
        : end_(from + allowed) {}

    // The whole milliseconds left at now; 0 once the deadline has come.
    std::chrono::milliseconds left(Clock::time_point now = Clock::now()) const {
        return std::max(std::chrono::duration_cast<std::chrono::milliseconds>(end_ - now),
                        std::chrono::milliseconds(0));
    }

    // Whether the deadline has come by now.
    bool passed(Clock::time_point now = Clock::now()) const { return left(now).count() == 0; }

    // What is left as poll() takes it: whole milliseconds, at most INT_MAX.
    int pollMilliseconds(Clock::time_point now = Clock::now()) const {
        return static_cast<int>(
            std::min<std::chrono::milliseconds::rep>(left(now).count(), INT_MAX));
    }

  private:
    Clock::time_point end_;
};

}  // namespace velnor::support
