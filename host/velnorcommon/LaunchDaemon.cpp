// Job files. The launch arguments are read and written on the libplist tree itself, so that a
// rewrite keeps every other key and value exactly, whatever its kind. Job control is in
// LaunchDaemonState.cpp: what reads a job file alone does not take it along.
#include "LaunchDaemon.h"

#include <plist/plist.h>

#include <cerrno>

#include "HostLog.h"
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
// file yet. Fails when the file is there but cannot be read or is not a dictionary: writing
// over it would lose whatever it holds.
support::Result<PlistNode> jobTreeToRewrite(const std::string& path) {
    auto root = readPlistNodeFile(path);
    if (!root && root.error() == ENOENT) {
        return PlistNode(plist_new_dict());
    }
    if (!root) {
        return support::couldNot("change the launch arguments in", path, root.message(),
                                 root.error());
    }
    if (!isDictionary(root->get())) {
        return support::couldNot("change the launch arguments in", path,
                                 "it does not hold a dictionary", EINVAL);
    }
    return root;
}

// Fails for the first argument that the XML job file cannot carry exactly.
support::Status checkCarriable(const std::string& path, const LaunchArguments& arguments) {
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
    return {};
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
    auto root = readPlistNodeFile(path);
    if (!root) {
        // A job that is not installed is an answer, not a failure.
        if (root.error() != ENOENT) {
            logHostFailure(root.message());
        }
        return std::nullopt;
    }
    if (!isDictionary(root->get())) {
        logHostFailure(
            support::couldNot("read the launch arguments in", path, "it does not hold a dictionary")
                .message);
        return std::nullopt;
    }
    return stringsOfArrayNode(plist_dict_get_item(root->get(), kProgramArgumentsKey));
}

namespace {

// Writes the arguments into the job file, keeping every other key and value.
support::Status replaceLaunchArguments(const std::string& path, const LaunchArguments& arguments) {
    if (auto carriable = checkCarriable(path, arguments); !carriable) {
        return carriable;
    }
    auto root = jobTreeToRewrite(path);
    if (!root) {
        return root.failure();
    }
    // Replacing the value keeps the key where it was among the others.
    plist_dict_set_item(root->get(), kProgramArgumentsKey, arrayOfStrings(arguments).release());
    return replaceWholeFileAtomically(path, xmlOfPlistNode(root->get()), kNewJobFileMode);
}

}  // namespace

bool SetLaunchDaemonServiceConfigArgs(const std::string& path, const LaunchArguments& arguments) {
    const support::Status replaced = replaceLaunchArguments(path, arguments);
    if (!replaced) {
        logHostFailure(replaced.message());
    }
    return replaced.ok();
}

}  // namespace velnor
