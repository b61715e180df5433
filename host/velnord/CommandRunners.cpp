#include "CommandRunners.h"

#include <pthread.h>
#include <syslog.h>

#include <exception>
#include <thread>

namespace velnor::host {

CommandRunners::CommandRunners(std::size_t spare) : spare_(spare) {
    std::lock_guard lock(mutex_);
    for (std::size_t started = 0; started < spare_; ++started) {
        startThread();
    }
}

CommandRunners::~CommandRunners() {
    stop();
}

// Called with the mutex held. The thread is detached: stop() waits for it through threads_.
void CommandRunners::startThread() {
    std::thread([this] { serve(); }).detach();
    ++threads_;
}

void CommandRunners::run(std::function<void()> work) {
    {
        std::lock_guard lock(mutex_);
        work_.push_back(std::move(work));
        ++busy_;
        // Every piece of work waiting has a thread waiting for it, or gets a new one.
        if (work_.size() > waiting_) {
            startThread();
            return;
        }
    }
    wake_.notify_one();
}

std::size_t CommandRunners::busy() const {
    std::lock_guard lock(mutex_);
    return busy_;
}

void CommandRunners::stop() {
    std::unique_lock lock(mutex_);
    stopping_ = true;
    wake_.notify_all();
    allGone_.wait(lock, [this] { return threads_ == 0; });
}

// A thread's life: it runs work until it finds enough others waiting, or the runners stop.
void CommandRunners::serve() {
    // Named, so that the threads that write to clients are told from the loop's in ps and top.
    pthread_setname_np(pthread_self(), "velnord command");
    std::unique_lock lock(mutex_);
    for (;;) {
        ++waiting_;
        wake_.wait(lock, [this] { return stopping_ || !work_.empty(); });
        --waiting_;
        if (work_.empty()) {
            break;
        }
        std::function<void()> work = std::move(work_.front());
        work_.pop_front();
        lock.unlock();
        // The top of the thread: nothing that escapes the work ends the daemon.
        try {
            work();
        } catch (const std::exception& exception) {
            ::syslog(LOG_ERR, "a command line ended with an exception: %s", exception.what());
        } catch (...) {
            ::syslog(LOG_ERR, "a command line ended with an exception of an unknown type");
        }
        work = nullptr;
        lock.lock();
        --busy_;
        if (waiting_ >= spare_ && !stopping_) {
            break;
        }
    }
    --threads_;
    // Told once this thread has let go of everything, so that stop() may then destroy it all.
    std::notify_all_at_thread_exit(allGone_, std::move(lock));
}

}  // namespace velnor::host
