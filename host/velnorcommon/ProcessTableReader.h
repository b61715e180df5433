// The process table read from a /proc folder; ec_get_process_table reads the machine's.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Export.h"
#include "ProcessTable.h"

namespace velnor {

// The effective uid in the text of a /proc/PID/status file: the second number of its "Uid:"
// line. Nothing when there is no such line or number.
VELNOR_EXPORT std::optional<uid_t> parseEffectiveUid(std::string_view status);

// Fills table with one record for each numeric entry of procRoot, in the order in which the
// folder lists them, and answers 0. A process that ends during the walk, and so has no status
// left, is skipped. When the folder cannot be listed, answers the errno that says why, and
// table holds what was read until then.
int readProcessTable(const std::string& procRoot, std::vector<kinfo_proc>& table);

// ec_get_process_table with the table read from procRoot.
std::int32_t getProcessTableFrom(const std::string& procRoot, kinfo_proc** table,
                                 std::size_t* count);

}  // namespace velnor
