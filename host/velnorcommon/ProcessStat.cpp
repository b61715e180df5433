#include "ProcessStat.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <string>

namespace velnor {
namespace {

constexpr int kStateField = 3;
constexpr int kStartTimeField = 22;

// A stat file holds a pid, a command name of at most 64 bytes and some fifty numbers of at
// most twenty digits each: well under this.
constexpr std::size_t kStatFileLimit = 4096;

}  // namespace

std::optional<ProcessStat> parseProcessStat(std::string_view text) noexcept {
    const auto nameEnd = text.rfind(')');
    if (nameEnd == std::string_view::npos) {
        return std::nullopt;
    }
    // After the name come " S ppid ...": field 3 is the first one, each after one space.
    std::string_view rest = text.substr(nameEnd + 1);
    ProcessStat stat{};
    for (int field = kStateField; field <= kStartTimeField; ++field) {
        if (rest.empty() || rest.front() != ' ') {
            return std::nullopt;
        }
        rest.remove_prefix(1);
        const auto end = std::min(rest.find(' '), rest.find('\n'));
        const std::string_view value = rest.substr(0, end);
        if (value.empty()) {
            return std::nullopt;
        }
        if (field == kStateField) {
            if (value.size() != 1) {
                return std::nullopt;
            }
            stat.state = value.front();
        } else if (field == kStartTimeField) {
            auto [past, failure] =
                std::from_chars(value.data(), value.data() + value.size(), stat.startTime);
            if (failure != std::errc() || past != value.data() + value.size()) {
                return std::nullopt;
            }
        }
        rest.remove_prefix(value.size());
    }
    return stat;
}

std::optional<ProcessStat> readProcessStat(const char* statPath) noexcept {
    const int fd = ::open(statPath, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return std::nullopt;
    }
    char buffer[kStatFileLimit];
    std::size_t length = 0;
    bool failed = false;
    while (length < sizeof buffer) {
        const ssize_t got = ::read(fd, buffer + length, sizeof buffer - length);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            failed = got < 0;
            break;
        }
        length += static_cast<std::size_t>(got);
    }
    ::close(fd);
    if (failed) {
        return std::nullopt;
    }
    return parseProcessStat(std::string_view(buffer, length));
}

std::optional<ProcessStat> readProcessStat(std::string_view procRoot, pid_t pid) {
    const std::string path = std::string(procRoot) + "/" + std::to_string(pid) + "/stat";
    return readProcessStat(path.c_str());
}

}  // namespace velnor
