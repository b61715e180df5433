#include "StopDeadline.h"

namespace velnor::host {

std::optional<StopDeadline> earliestStopDeadline(const std::vector<PendingStop>& pending,
                                                 const std::string& queriedLabel,
                                                 std::chrono::steady_clock::time_point now) {
    std::optional<StopDeadline> earliest;
    for (const PendingStop& stop : pending) {
        std::chrono::steady_clock::duration left = std::chrono::milliseconds(stop.millisecondsLeft);
        if (stop.label == queriedLabel && stop.millisecondsLeft == 0) {
            left = kStopRetry;
        }
        if (!earliest || now + left < earliest->at) {
            earliest = StopDeadline{now + left, stop.label};
        }
    }
    return earliest;
}

}  // namespace velnor::host
