#include "RefusalRecorder.h"

#include <syslog.h>

#include "AuditTrail.h"

namespace velnor::host {

RefusalRecorder::RefusalRecorder() : thread_([this] { run(); }) {}

RefusalRecorder::~RefusalRecorder() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    thread_.join();
}

void RefusalRecorder::record(const Caller& caller, std::string_view verb, std::string_view action,
                             std::string_view reason) {
    {
        std::lock_guard lock(mutex_);
        if (waiting_.size() < kMostWaiting) {
            waiting_.push_back(
                Refusal{caller, std::string(verb), std::string(action), std::string(reason)});
            wake_.notify_one();
            return;
        }
    }
    ::syslog(LOG_ERR, "audit: too many refusals waiting; not recorded: %s refused %s",
             caller.account.c_str(), std::string(verb).c_str());
}

void RefusalRecorder::run() {
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return stopping_ || !waiting_.empty(); });
        if (waiting_.empty()) {
            return;
        }
        Refusal refusal = std::move(waiting_.front());
        waiting_.pop_front();
        lock.unlock();
        // The top of the recording thread: a failure is logged by the trail and ends nothing.
        try {
            recordRefusal(refusal.caller, refusal.verb, refusal.action, refusal.reason);
        } catch (const std::exception& exception) {
            ::syslog(LOG_ERR, "audit: could not record a refusal: %s", exception.what());
        }
        lock.lock();
    }
}

}  // namespace velnor::host
