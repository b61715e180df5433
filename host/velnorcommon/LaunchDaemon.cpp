// Job files and job control. The launch arguments are read and written on the libplist tree
// itself, so that a rewrite keeps every other key and value exactly, whatever its kind.
#include "LaunchDaemon.h"

#include <plist/plist.h>

#include <cerrno>

#include "HostLog.h"
#include "LaunchdJobs.h"
#include "PlistNode.h"
#include "PlistText.h"
#include "Result.h"
#include "WholeFile.h"

namespace velnor {
namespace {

constexpr const char* kProgramArgumentsKey = "ProgramArguments";

// A job file that did not exist before is readable by everyone, as launchd wants it.
constexpr mode_t kNewJobFileMode = 0644;

bool isDictionary(plist_t node) {
    return plist_get_node_type(node) == PLIST_DICT;
}

// The job file's tree to be changed: the file's own, or an empty dictionary when there is no
// file yet. Empty when the file is there but cannot be read or is not a dictionary: writing
// over it would lose whatever it holds.
PlistNode jobTreeToRewrite(const std::string& path) {
    std::string error;
    bool missing = false;
    PlistNode root = readPlistNodeFile(path, &error, &missing);
    if (missing) {
        return PlistNode(plist_new_dict());
    }
    if (!root) {
        logHostFailure("cannot change the launch arguments: " + error);
        return nullptr;
    }
    if (!isDictionary(root.get())) {
        logHostFailure("cannot change the launch arguments: " + path +
                       " does not hold a dictionary");
        return nullptr;
    }
    return root;
}

// A failure for the first argument that the XML job file cannot carry exactly.
std::optional<support::Failure> uncarriableArgument(const std::string& path,
                                                    const LaunchArguments& arguments) {
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        const std::size_t position = uncarriableCharacterAt(arguments[index]);
        if (position != std::string::npos) {
            return support::couldNot("change the launch arguments in", path,
                                     "argument " + std::to_string(index) + " holds " +
                                         characterNameAt(arguments[index], position) +
                                         ", which a property list cannot carry exactly",
                                     EINVAL);
        }
    }
    return std::nullopt;
}

PlistNode arrayOfStrings(const LaunchArguments& arguments) {
    PlistNode array(plist_new_array());
    for (const auto& argument : arguments) {
        plist_array_append_item(array.get(), plist_new_string(argument.c_str()));
    }
    return array;
}

}  // namespace

std::optional<LaunchArguments> GetLaunchDaemonServiceConfigArgs(const std::string& path) {
    std::string error;
    bool missing = false;
    PlistNode root = readPlistNodeFile(path, &error, &missing);
    if (!root) {
        // A job that is not installed is an answer, not a failure.
        if (!missing) {
            logHostFailure("cannot read the launch arguments: " + error);
        }
        return std::nullopt;
    }
    if (!isDictionary(root.get())) {
        logHostFailure("cannot read the launch arguments: " + path + " does not hold a dictionary");
        return std::nullopt;
    }
    return stringsOfArrayNode(plist_dict_get_item(root.get(), kProgramArgumentsKey));
}

bool SetLaunchDaemonServiceConfigArgs(const std::string& path, const LaunchArguments& arguments) {
    if (auto refused = uncarriableArgument(path, arguments)) {
        logHostFailure(refused->message);
        return false;
    }
    PlistNode root = jobTreeToRewrite(path);
    if (!root) {
        return false;
    }
    // Replacing the value keeps the key where it was among the others.
    plist_dict_set_item(root.get(), kProgramArgumentsKey, arrayOfStrings(arguments).release());
    std::string error;
    if (!replaceWholeFileAtomically(path, xmlOfPlistNode(root.get()), kNewJobFileMode, &error)) {
        logHostFailure("cannot change the launch arguments: " + error);
        return false;
    }
    return true;
}

bool SetLaunchDaemonServiceState(const std::string& label, int state) {
    LaunchdJobs jobs = LaunchdJobs::onThisMachine();
    switch (state) {
        case 1:
            return jobs.start(label);
        case 0:
            return jobs.stop(label);
        default:
            logHostFailure("cannot change job " + label + " to the unknown state " +
                           std::to_string(state));
            return false;
    }
}

bool GetLaunchDaemonServiceState(const std::string& label) {
    return LaunchdJobs::onThisMachine().isRunning(label);
}

}  // namespace velnor
