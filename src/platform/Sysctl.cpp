// sysctl on Linux: the two kernel queries that the plug-in makes, answered from /proc.
//
// {kCtlKern, kKernProcargs2, pid} gives the bytes that the BSD kernel gives:
//
//   argument count   32 bits, host byte order
//   executable path  readlink of /proc/PID/exe, then a zero byte
//   padding          zero bytes, so that the first argument starts at a multiple of the
//                    pointer size (none when it already does)
//   arguments        /proc/PID/cmdline, each string ending in a zero byte
//   environment      /proc/PID/environ, each string ending in a zero byte
//
// Readers find the arguments by skipping empty pieces, so the count is the number of
// non-empty argument strings: an empty argument ("") is delivered as its bare zero byte but
// not counted. A process that rewrote its title in place (a database server process shows
// "postgres: user db [local] idle" padded with zero bytes) has its title as /proc reports it,
// and so as its first non-empty argument.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include "DescriptorIo.h"
#include "Result.h"
#include "UniqueFd.h"
#include "platform/Kernel.h"

namespace velnor::platform {
namespace {

constexpr unsigned int kArgumentMaximumNameLength = 2;
constexpr unsigned int kProcessArgumentsNameLength = 3;
// A link's target grows from here; /proc/PID/exe is rarely longer.
constexpr std::size_t kInitialLinkLength = 256;

// What a process's /proc folder holds about its image, as raw bytes.
struct ProcessImage {
    std::string executable;
    std::string arguments;
    std::string environment;
};

int fail(int error) {
    errno = error;
    return -1;
}

// The error that a caller of sysctl understands for a /proc failure: an entry that is gone
// means the process has ended, and a refused entry means it may not be read.
int processError(int error) {
    switch (error) {
        case ENOENT:
            return ESRCH;
        case EACCES:
            return EPERM;
        default:
            return error;
    }
}

// The whole of the file name in folder (a /proc folder, named folderPath in messages).
support::Result<std::string> readFileIn(int folder, const std::string& folderPath,
                                        const char* name) {
    const std::string path = folderPath + "/" + name;
    support::UniqueFd file(openat(folder, name, O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        return support::couldNot("open", path, errno);
    }
    std::string contents;
    if (!support::readAll(file.get(), contents)) {
        return support::couldNot("read", path, errno);
    }
    return contents;
}

// The target of the link name in folder (named folderPath in messages).
support::Result<std::string> readLinkIn(int folder, const std::string& folderPath,
                                        const char* name) {
    std::string target;
    for (std::size_t capacity = kInitialLinkLength;; capacity *= 2) {
        target.resize(capacity);
        const ssize_t length = readlinkat(folder, name, target.data(), capacity);
        if (length < 0) {
            return support::couldNot("read the link", folderPath + "/" + name, errno);
        }
        // A target that fills the buffer may have been cut short.
        if (static_cast<std::size_t>(length) < capacity) {
            target.resize(static_cast<std::size_t>(length));
            return target;
        }
    }
}

// Reads pid's executable path, arguments and environment, all from one /proc folder so that
// they describe one process even if the pid is reused meanwhile. A failure's error() is the
// error number for sysctl.
support::Result<ProcessImage> readProcessImage(pid_t pid) {
    const std::string folderPath = "/proc/" + std::to_string(pid);
    if (pid <= 0) {
        return support::couldNot("read", folderPath, ESRCH);
    }
    support::UniqueFd folder(open(folderPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder.valid()) {
        return support::couldNot("open", folderPath, processError(errno));
    }
    // What could not be read, with the error number that sysctl gives for it.
    auto failed = [](const support::Failure& failure) {
        return support::Failure{processError(failure.error), failure.message};
    };
    // The link first: for another account's process it is what refuses a reader without the
    // privilege. A process that has ended but not been reaped has no executable and no
    // arguments any more, and neither has a kernel thread: both count as no process, as
    // neither has arguments to give.
    auto executable = readLinkIn(folder.get(), folderPath, "exe");
    if (!executable) {
        return failed(executable.failure());
    }
    auto arguments = readFileIn(folder.get(), folderPath, "cmdline");
    if (!arguments) {
        return failed(arguments.failure());
    }
    // No bytes at all: the process ended after the link was read, or it is in the middle of
    // starting a new program and has not laid its arguments out yet.
    if (arguments->empty()) {
        return support::couldNot("read", folderPath, "it has no arguments", ESRCH);
    }
    auto environment = readFileIn(folder.get(), folderPath, "environ");
    if (!environment) {
        return failed(environment.failure());
    }
    ProcessImage image{std::move(*executable), std::move(*arguments), std::move(*environment)};
    return image;
}

std::int32_t countNonEmptyStrings(const std::string& strings) {
    std::int32_t count = 0;
    bool inString = false;
    for (const char byte : strings) {
        if (byte != '\0' && !inString) {
            ++count;
        }
        inString = byte != '\0';
    }
    return count;
}

// Appends strings so that the last one ends in a zero byte: /proc leaves it off when a
// process has written over the zero byte at the end of its argument area.
void appendTerminated(std::string* bytes, const std::string& strings) {
    bytes->append(strings);
    if (!strings.empty() && strings.back() != '\0') {
        bytes->push_back('\0');
    }
}

std::string layOutProcessArguments(const ProcessImage& image) {
    std::string bytes;
    const std::int32_t count = countNonEmptyStrings(image.arguments);
    bytes.append(reinterpret_cast<const char*>(&count), sizeof count);
    bytes.append(image.executable);
    bytes.push_back('\0');
    constexpr std::size_t alignment = sizeof(void*);
    bytes.append((alignment - bytes.size() % alignment) % alignment, '\0');
    appendTerminated(&bytes, image.arguments);
    appendTerminated(&bytes, image.environment);
    return bytes;
}

// Copies bytes out as sysctl does: with no output buffer, only the size that it needs.
int deliver(const void* bytes, std::size_t size, void* oldp, std::size_t* oldlenp) {
    if (oldp != nullptr) {
        if (*oldlenp < size) {
            return fail(ENOMEM);
        }
        std::memcpy(oldp, bytes, size);
    }
    *oldlenp = size;
    return 0;
}

int argumentMaximum(void* oldp, std::size_t* oldlenp) {
    const long maximum = sysconf(_SC_ARG_MAX);
    const std::int32_t value =
        static_cast<std::int32_t>(maximum > std::numeric_limits<std::int32_t>::max()
                                      ? std::numeric_limits<std::int32_t>::max()
                                      : maximum);
    return deliver(&value, sizeof value, oldp, oldlenp);
}

int processArguments(pid_t pid, void* oldp, std::size_t* oldlenp) {
    const support::Result<ProcessImage> image = readProcessImage(pid);
    if (!image) {
        return fail(image.error());
    }
    const std::string bytes = layOutProcessArguments(*image);
    return deliver(bytes.data(), bytes.size(), oldp, oldlenp);
}

}  // namespace

int sysctl(const int* name, unsigned int namelen, void* oldp, std::size_t* oldlenp,
           const void* newp, std::size_t /*newlen*/) {
    if (name == nullptr || namelen < kArgumentMaximumNameLength) {
        return fail(EINVAL);
    }
    const bool isArgumentMaximum = name[0] == kCtlKern && name[1] == kKernArgmax;
    const bool isProcessArguments = name[0] == kCtlKern && name[1] == kKernProcargs2;
    if (!isArgumentMaximum && !isProcessArguments) {
        return fail(ENOTSUP);
    }
    const unsigned int expectedLength =
        isArgumentMaximum ? kArgumentMaximumNameLength : kProcessArgumentsNameLength;
    if (namelen != expectedLength || oldlenp == nullptr) {
        return fail(EINVAL);
    }
    // Both values are the kernel's to set: nothing here can be written.
    if (newp != nullptr) {
        return fail(EPERM);
    }
    return isArgumentMaximum ? argumentMaximum(oldp, oldlenp)
                             : processArguments(name[2], oldp, oldlenp);
}

}  // namespace velnor::platform
