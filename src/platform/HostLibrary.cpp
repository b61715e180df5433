#include "platform/HostLibrary.h"

namespace velnor::platform {

bool getLaunchDaemonServiceState(const std::string& label) {
    return GetLaunchDaemonServiceState(label);
}

bool setLaunchDaemonServiceState(const std::string& label, int state) {
    return SetLaunchDaemonServiceState(label, state);
}

std::optional<LaunchArguments> getLaunchDaemonServiceConfigArgs(const std::string& path) {
    return GetLaunchDaemonServiceConfigArgs(path);
}

bool setLaunchDaemonServiceConfigArgs(const std::string& path, const LaunchArguments& arguments) {
    return SetLaunchDaemonServiceConfigArgs(path, arguments);
}

std::int32_t getProcessTable(kinfo_proc** table, std::size_t* count) {
    return ec_get_process_table(table, count);
}

}  // namespace velnor::platform
