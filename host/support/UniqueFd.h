// An owned file descriptor, closed when it goes out of scope.
#pragma once

#include <unistd.h>

#include <utility>

namespace velnor::support {

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { reset(); }

    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            reset(std::exchange(other.fd_, -1));
        }
        return *this;
    }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }

    // Closes the descriptor held so far and takes fd instead.
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = fd;
    }

    // Closes the descriptor and answers close's own result: 0, or -1 with errno set. A write
    // that the kernel deferred can fail only here, so writers must look at it.
    int close() { return ::close(std::exchange(fd_, -1)); }

  private:
    int fd_ = -1;
};

}  // namespace velnor::support
