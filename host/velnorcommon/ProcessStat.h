// What the kernel's /proc/PID/stat tells about a process: whether it still runs and when it
// started, which together tell a process apart from a later one that reuses its pid.
//
// Nothing here allocates memory, so that a child process between fork and exec may use it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string_view>

#include "Export.h"

namespace velnor {

struct ProcessStat {
    char state;               // field 3: 'R', 'S', 'D', 'Z' (zombie), 'X' (dead), ...
    std::uint64_t startTime;  // field 22: clock ticks from boot to the process's start

    // True while the process has not ended: a zombie has ended and only waits to be reaped.
    bool running() const { return state != 'Z' && state != 'X'; }
};

// The state and start time in the text of a stat file; nothing when the text is not one. The
// command name in field 2 may hold spaces and parentheses, so fields are counted from the last
// ')'.
VELNOR_EXPORT std::optional<ProcessStat> parseProcessStat(std::string_view text) noexcept;

// The state and start time of the process whose stat file is at statPath ("/proc/self/stat",
// "/proc/123/stat"); nothing when it cannot be read, as when the process has gone.
VELNOR_EXPORT std::optional<ProcessStat> readProcessStat(const char* statPath) noexcept;

// The same for the process pid under procRoot ("/proc").
VELNOR_EXPORT std::optional<ProcessStat> readProcessStat(std::string_view procRoot, pid_t pid);

}  // namespace velnor
