// The restart ledger: how often the service was started and stopped, and why, how long the last
// start and stop took, and which failed. velnord keeps it in a file of root's, rewritten after
// each start or stop and read when it starts, so that restarting the daemon does not reset it.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "PlistValue.h"
#include "Result.h"

namespace velnor::host {

// Why the service was started or stopped.
enum class MoveCause {
    Operator,        // a start, stop or restart asked for by velnor or the console
    SettingsChange,  // the restart that picks written settings up
    Migration,       // the restart of the log folder's one-time migration
    AtLoad,          // the jobs that run when velnord starts
    StopDeadline,    // the SIGKILL of a stop past its ExitTimeOut
};

inline constexpr std::size_t kMoveCauses = 5;

// As the ledger and the metrics name it: "operator", "settings change", ...
std::string_view causeName(MoveCause cause);

using CauseCounts = std::array<std::uint64_t, kMoveCauses>;

struct RestartLedger {
    CauseCounts starts{};
    CauseCounts stops{};
    // By the error code that the plug-in answered (or would have).
    std::map<std::string, std::uint64_t> startFailures;
    std::map<std::string, std::uint64_t> stopFailures;
    // When the last start was asked for, in seconds since 1970.
    std::optional<std::int64_t> lastStart;
    // From asking the job manager until the server answered, or the call that asked ended.
    double lastStartSeconds = 0;
    double lastStopSeconds = 0;
    // The local day ("2026-11-25") that startsToday counts.
    std::string day;
    CauseCounts startsToday{};
};

inline constexpr const char* kRestartLedgerPath = "/var/lib/velnor/ledger.plist";

// The most error codes a ledger keeps apart for starts and for stops: a new code past them is
// counted as "other", so that no answer of the plug-in's can grow the file without end.
inline constexpr std::size_t kMostFailureCodes = 32;

// The local day of a moment, "YYYY-MM-DD".
std::string localDayOf(std::chrono::system_clock::time_point moment);

// Counts one start asked for at began, which took took seconds, by its cause.
void recordStart(RestartLedger& ledger, MoveCause cause,
                 std::chrono::system_clock::time_point began, double took);
// Counts one stop, which took took seconds, by its cause.
void recordStop(RestartLedger& ledger, MoveCause cause, double took);
// Counts a failed start (or stop) by the error code that the plug-in answered, or would have.
void recordFailure(RestartLedger& ledger, bool start, const std::string& code);

// The ledger as its file holds it.
PlistValue ledgerValue(const RestartLedger& ledger);

// The ledger that a file's value holds. Fails, saying what is wrong, for anything but a
// dictionary of the shape that ledgerValue writes: a file that another hand changed is not
// half believed.
support::Result<RestartLedger> ledgerOfValue(const PlistValue& value);

// The ledger in the file at path: an empty one when there is no file. Fails, saying why, when
// the file cannot be read or is not a ledger.
support::Result<RestartLedger> readLedgerFile(const std::string& path);

// Writes the ledger to path atomically, root's and 0600, in a folder of root's that no one else
// may write to (created when missing).
support::Status writeLedgerFile(const std::string& path, const RestartLedger& ledger);

// What `status --details` and the console show of the ledger on the day today: the last start
// (a date, left out when there was none) and today's starts by cause.
PlistValue ledgerFigures(const RestartLedger& ledger, const std::string& today);

}  // namespace velnor::host
