// Job files. The launch arguments are read and written on the libplist tree itself, so that a
// rewrite keeps every other key and value exactly, in the file's own order. Job control is in
// LaunchDaemonState.cpp: what reads a job file alone does not take it along.
//
// A rewrite keeps the file's format as well. launchd reads both, and a binary job file may
// hold what XML cannot carry: a control character or a carriage return in a string, a date with
// fractions of a second. Written as XML, such a file would come back changed, or not be
// well-formed at all, and every reader but libplist's would refuse it; written as binary, it
// comes back exactly. An XML job file is rewritten as XML, and refused when it holds such text,
// since the rewrite could carry it no better than the file does now.
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
constexpr const char* kChangeVerb = "change the launch arguments in";

// A job file that did not exist before is readable by everyone, as launchd wants it, and XML.
constexpr mode_t kNewJobFileMode = 0644;

// The job file's tree, when the file holds a dictionary that can be read whole: a file that
// cannot be read whole is not used at all, neither to read its arguments nor to rewrite it. A
// failure's error() is ENOENT when there is no file.
support::Result<PlistFile> readJobFile(const std::string& path, std::string_view verb) {
    auto job = readPlistFile(path);
    if (!job) {
        return job.failure();
    }
    if (plist_get_node_type(job->root.get()) != PLIST_DICT) {
        return support::couldNot(verb, path, "it does not hold a dictionary", EINVAL);
    }
    if (auto whole = plistValueOfNode(job->root.get()); !whole) {
        return support::couldNot("read", path, whole.message(), whole.error());
    }
    return job;
}

// The job file's tree to be changed: the file's own, or an empty dictionary when there is no
// file yet. Fails when the file is there but cannot be read whole or is not a dictionary:
// writing over it would lose whatever it holds.
support::Result<PlistFile> jobToRewrite(const std::string& path) {
    auto job = readJobFile(path, kChangeVerb);
    if (!job && job.error() == ENOENT) {
        return PlistFile{PlistNode(plist_new_dict()), PlistFormat::Xml};
    }
    return job;
}

// Fails when the job file holds launch arguments that cannot be read. The caller composed its
// arguments without them, so that replacing them would lose the program and every setting that
// they hold, and the service could no longer start.
support::Status checkReplaceable(const std::string& path, plist_t root) {
    plist_t stored = plist_dict_get_item(root, kProgramArgumentsKey);
    if (stored == nullptr) {
        return {};
    }
    if (auto strings = stringsOfArrayNode(stored); !strings) {
        return support::couldNot(kChangeVerb, path,
                                 std::string(kProgramArgumentsKey) +
                                     " is not an array of strings (" + strings.message() +
                                     "), and arguments composed without it would lose the "
                                     "program and settings that it holds",
                                 EINVAL);
    }
    return {};
}

// Fails for the first argument that the job file's format cannot carry exactly.
support::Status checkCarriable(const std::string& path, const LaunchArguments& arguments,
                               PlistFormat format) {
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        const std::size_t position = uncarriableCharacterAt(arguments[index], format);
        if (position != std::string::npos) {
            return support::couldNot(kChangeVerb, path,
                                     "argument " + std::to_string(index) + " holds " +
                                         characterNameAt(arguments[index], position) + ", which " +
                                         formatName(format) + " cannot carry exactly",
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
    auto job = readJobFile(path, "read the launch arguments in");
    if (!job) {
        // A job that is not installed is an answer, not a failure.
        if (job.error() != ENOENT) {
            logHostFailure(job.message());
        }
        return std::nullopt;
    }
    plist_t stored = plist_dict_get_item(job->root.get(), kProgramArgumentsKey);
    if (stored == nullptr) {
        return std::nullopt;
    }
    auto arguments = stringsOfArrayNode(stored);
    if (!arguments) {
        logHostFailure(support::couldNot("read the launch arguments in", path,
                                         std::string(kProgramArgumentsKey) +
                                             " is not an array of strings (" + arguments.message() +
                                             ")")
                           .message);
        return std::nullopt;
    }
    return std::move(*arguments);
}

namespace {

// Writes the arguments into the job file, keeping every other key and value and the file's
// format; everything is checked before the file changes.
support::Status replaceLaunchArguments(const std::string& path, const LaunchArguments& arguments) {
    auto job = jobToRewrite(path);
    if (!job) {
        return job.failure();
    }
    plist_t root = job->root.get();
    if (auto replaceable = checkReplaceable(path, root); !replaceable) {
        return replaceable;
    }
    // Before the arguments become strings of the tree, which would cut one at a zero byte.
    if (auto carriable = checkCarriable(path, arguments, job->format); !carriable) {
        return carriable;
    }
    // Replacing the value keeps the key where it was among the others.
    plist_dict_set_item(root, kProgramArgumentsKey, arrayOfStrings(arguments).release());
    auto bytes = exactBytesOfPlistNode(root, job->format);
    if (!bytes) {
        return support::couldNot(kChangeVerb, path, bytes.message(), bytes.error());
    }
    return replaceWholeFileAtomically(path, *bytes, kNewJobFileMode);
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
