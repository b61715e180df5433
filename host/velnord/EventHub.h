// How changes reach every open page of the web console: as Server-Sent Events, numbered in the
// order they were published, of which the newest few are kept for a page that reconnects.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

#include "PlistValue.h"

namespace velnor::host {

// How many of the newest events the hub keeps; a page further behind misses the older ones.
inline constexpr std::size_t kKeptEvents = 256;

// One Server-Sent Event: its kind, and the data as JSON, one "data:" line per line.
std::string eventText(const std::string& kind, const PlistValue& data);

// Every page's feed: events in the order they were published, each with its number.
class EventHub {
  public:
    void publish(const std::string& kind, const PlistValue& data);
    // The events after *cursor as Server-Sent Events text, waiting up to timeout for one; moves
    // *cursor past them. Empty when none came or the hub closed.
    std::string waitAfter(std::uint64_t* cursor, std::chrono::milliseconds timeout);
    std::uint64_t latest();
    void close();
    bool closed();

  private:
    struct Event {
        std::uint64_t number;
        std::string text;
    };
    std::mutex mutex_;
    std::condition_variable published_;
    std::deque<Event> events_;
    std::uint64_t latest_ = 0;
    bool closed_ = false;
};

}  // namespace velnor::host
