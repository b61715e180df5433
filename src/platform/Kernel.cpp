#include "platform/Kernel.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "ProcessTableReader.h"
#include "WholeFile.h"

namespace velnor::platform {

support::Result<ProcessHandle> openProcess(pid_t pid) {
    const std::string object = "process " + std::to_string(pid);
    const long descriptor = ::syscall(SYS_pidfd_open, pid, 0);
    if (descriptor < 0) {
        return support::couldNot("open", object, errno);
    }
    return ProcessHandle{pid, support::UniqueFd(static_cast<int>(descriptor))};
}

support::Result<uid_t> processOwner(pid_t pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/status";
    const support::Result<std::string> status = readWholeFile(path);
    if (!status) {
        return status.failure();
    }
    const std::optional<uid_t> owner = parseEffectiveUid(*status);
    if (!owner) {
        return support::couldNot("read", path, "it names no effective user id", EINVAL);
    }
    return *owner;
}

support::Status signalProcess(const ProcessHandle& process, int signal) {
    if (::syscall(SYS_pidfd_send_signal, process.descriptor.get(), signal, nullptr, 0) != 0) {
        return support::couldNot("signal", "process " + std::to_string(process.pid), errno);
    }
    return {};
}

int usleep(useconds_t microseconds) {
    return ::usleep(microseconds);
}

}  // namespace velnor::platform
