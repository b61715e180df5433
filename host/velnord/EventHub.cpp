#include "EventHub.h"

#include <sstream>

#include "Output.h"

namespace velnor::host {

std::string eventText(const std::string& kind, const PlistValue& data) {
    std::string text = "event: " + kind + "\n";
    std::istringstream lines(toJson(data));
    for (std::string line; std::getline(lines, line);) {
        text += "data: " + line + "\n";
    }
    return text + "\n";
}

void EventHub::publish(const std::string& kind, const PlistValue& data) {
    std::string text = eventText(kind, data);
    {
        std::lock_guard lock(mutex_);
        events_.push_back(Event{++latest_, std::move(text)});
        if (events_.size() > kKeptEvents) {
            events_.pop_front();
        }
    }
    published_.notify_all();
}

std::string EventHub::waitAfter(std::uint64_t* cursor, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    published_.wait_for(lock, timeout, [&] { return closed_ || latest_ > *cursor; });
    std::string text;
    for (const Event& event : events_) {
        if (event.number > *cursor) {
            text += event.text;
        }
    }
    *cursor = latest_;
    return closed_ ? std::string() : text;
}

std::uint64_t EventHub::latest() {
    std::lock_guard lock(mutex_);
    return latest_;
}

void EventHub::close() {
    {
        std::lock_guard lock(mutex_);
        closed_ = true;
    }
    published_.notify_all();
}

bool EventHub::closed() {
    std::lock_guard lock(mutex_);
    return closed_;
}

}  // namespace velnor::host
