// An open file descriptor that closes itself: the one owner of each descriptor that the real
// platform opens.
#pragma once

#include <unistd.h>

#include <utility>

namespace velnor::platform {

class FileDescriptor {
  public:
    FileDescriptor() = default;
    /** Takes ownership of descriptor; a negative value makes an empty wrapper. */
    explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
    FileDescriptor(FileDescriptor&& other) noexcept
        : descriptor_(std::exchange(other.descriptor_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) {
            reset();
            descriptor_ = std::exchange(other.descriptor_, -1);
        }
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { reset(); }

    /** The descriptor, or -1 when the wrapper is empty. */
    int get() const { return descriptor_; }
    bool isOpen() const { return descriptor_ >= 0; }

    /** Closes now and empties the wrapper: 0, or -1 with errno. A write that fails late (a full
     * disk, a network file system) may show only here, so writers look at this result. */
    int close() { return ::close(std::exchange(descriptor_, -1)); }

  private:
    void reset() {
        if (descriptor_ >= 0) {
            ::close(std::exchange(descriptor_, -1));
        }
    }

    int descriptor_ = -1;
};

}  // namespace velnor::platform
