// What the plug-in needs of the host support library: launchd job state, the job's launch
// arguments, and the process table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "LaunchDaemon.h"
#include "ProcessTable.h"

namespace velnor::platform {

/** @see velnor::GetLaunchDaemonServiceState */
bool getLaunchDaemonServiceState(const std::string& label);
/** @see velnor::SetLaunchDaemonServiceState */
bool setLaunchDaemonServiceState(const std::string& label, int state);
/** @see velnor::GetLaunchDaemonServiceConfigArgs */
std::optional<LaunchArguments> getLaunchDaemonServiceConfigArgs(const std::string& path);
/** @see velnor::SetLaunchDaemonServiceConfigArgs */
bool setLaunchDaemonServiceConfigArgs(const std::string& path, const LaunchArguments& arguments);
/** @see ec_get_process_table */
std::int32_t getProcessTable(kinfo_proc** table, std::size_t* count);

}  // namespace velnor::platform
