// When the next stop's ExitTimeOut ends: the moment at which the worker queries that job's state,
// which kills what is left of it.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "LaunchdJobs.h"

namespace velnor::host {

// The earliest end of a pending stop's ExitTimeOut, and the job it is for.
struct StopDeadline {
    std::chrono::steady_clock::time_point at;
    std::string label;
};

// A stop still pending once its deadline's query has run means that its process survived the
// SIGKILL; it is asked about again after this long rather than at once, over and over.
inline constexpr std::chrono::seconds kStopRetry{1};

// The earliest deadline among the pending stops, as seen at now; nothing when none is pending.
// queriedLabel is the job whose query has just run: when its deadline has passed it is retried
// after kStopRetry.
std::optional<StopDeadline> earliestStopDeadline(const std::vector<PendingStop>& pending,
                                                 const std::string& queriedLabel,
                                                 std::chrono::steady_clock::time_point now);

}  // namespace velnor::host
