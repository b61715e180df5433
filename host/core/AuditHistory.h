// `velnor history`: the audit trail read back, one line in words per record, or the records as
// JSON, those before --since left out.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "AuditTrail.h"
#include "CommandLine.h"
#include "PlistValue.h"

namespace velnor::host {

// The moment that `--since TIME` names, seen from now: an ISO 8601 date or date and time in UTC
// (2026-11-25, 2026-11-25T10:30, 2026-11-25T10:30:15, a fraction of a second and a final Z
// allowed, a space in place of the T), or a span before now, a whole number and a unit: 90s,
// 15m, 2h, 7d. Nothing when the text is neither.
std::optional<std::chrono::system_clock::time_point> parseSince(
    std::string_view text, std::chrono::system_clock::time_point now);

struct TrailReading {
    // The records, oldest first, each the dictionary that its JSON line holds.
    PlistArray records;
    // Lines that are not a whole JSON object.
    std::size_t unreadable = 0;
};

// Adds the records of one file's text to reading, leaving out those whose time is before since
// (their times compare as text: the trail writes one fixed form). Blank lines are skipped.
void readTrailText(std::string_view text, const std::string& since, TrailReading& reading);

// Runs `velnor history [--since TIME]`, reading trail; the exit status.
int runHistory(const Command& command, const AuditTrail& trail = AuditTrail());

}  // namespace velnor::host
