#include "LaunchdJob.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdint>

#include "DescriptorIo.h"
#include "PlistNode.h"
#include "Result.h"

namespace velnor {
namespace {

// Reads the keys of one job dictionary; the first key of the wrong kind is remembered and
// ends the reading.
class JobKeys {
  public:
    JobKeys(plist_t dictionary, const std::string& path) : dictionary_(dictionary), path_(path) {}

    std::optional<std::string> text(const char* key) {
        plist_t node = plist_dict_get_item(dictionary_, key);
        if (node == nullptr) {
            return std::nullopt;
        }
        auto text = textOfStringNode(node);
        if (!text) {
            refuse(std::string(key) + " is not a string");
        }
        return text;
    }

    std::vector<std::string> strings(const char* key) {
        auto strings = stringsOfArrayNode(plist_dict_get_item(dictionary_, key));
        if (!strings || strings->empty()) {
            refuse(std::string(key) + " is not an array of at least one string");
            return {};
        }
        return *strings;
    }

    // A whole number from 1 to INT_MAX, or fallback when the key is absent.
    int positiveNumber(const char* key, int fallback) {
        plist_t node = plist_dict_get_item(dictionary_, key);
        if (node == nullptr) {
            return fallback;
        }
        std::uint64_t number = 0;
        if (plist_get_node_type(node) == PLIST_UINT) {
            plist_get_uint_val(node, &number);
        }
        // Negative integers come back as their two's complement, far above INT_MAX.
        if (number == 0 || number > INT_MAX) {
            refuse(std::string(key) + " is not a whole number from 1 to " +
                   std::to_string(INT_MAX));
            return fallback;
        }
        return static_cast<int>(number);
    }

    // A file mode creation mask: an integer from 0 to 0777, or nothing when the key is absent.
    std::optional<mode_t> mask(const char* key) {
        plist_t node = plist_dict_get_item(dictionary_, key);
        if (node == nullptr) {
            return std::nullopt;
        }
        std::uint64_t number = kNotAMask;
        if (plist_get_node_type(node) == PLIST_UINT) {
            plist_get_uint_val(node, &number);
        }
        if (number > kLargestMask) {
            refuse(std::string(key) + " is not an integer from 0 to 0777 (511)");
            return std::nullopt;
        }
        return static_cast<mode_t>(number);
    }

    // A boolean, or false when the key is absent.
    bool flag(const char* key) {
        plist_t node = plist_dict_get_item(dictionary_, key);
        if (node == nullptr) {
            return false;
        }
        if (plist_get_node_type(node) != PLIST_BOOLEAN) {
            refuse(std::string(key) + " is not a boolean");
            return false;
        }
        std::uint8_t value = 0;
        plist_get_bool_val(node, &value);
        return value != 0;
    }

    std::vector<std::pair<std::string, std::string>> textsByName(const char* key) {
        std::vector<std::pair<std::string, std::string>> entries;
        plist_t node = plist_dict_get_item(dictionary_, key);
        if (node == nullptr) {
            return entries;
        }
        if (plist_get_node_type(node) != PLIST_DICT) {
            refuse(std::string(key) + " is not a dictionary");
            return entries;
        }
        visitDictionaryEntries(node, [&](const char* name, plist_t value) {
            auto text = textOfStringNode(value);
            if (!text) {
                refuse(std::string(key) + " holds a value that is not a string under \"" + name +
                       "\"");
                return false;
            }
            entries.emplace_back(name, std::move(*text));
            return true;
        });
        return entries;
    }

    // The first key of the wrong kind, when there is one.
    const std::optional<support::Failure>& failure() const { return failure_; }

  private:
    void refuse(const std::string& why) {
        if (!failure_) {
            failure_ = support::couldNot("read", path_, why, EINVAL);
        }
    }

    plist_t dictionary_;
    static constexpr std::uint64_t kLargestMask = 0777;
    static constexpr std::uint64_t kNotAMask = kLargestMask + 1;

    const std::string& path_;
    std::optional<support::Failure> failure_;
};

}  // namespace

support::Result<LaunchdJob> readLaunchdJob(int file, const std::string& path) {
    struct stat status;
    if (fstat(file, &status) != 0) {
        return support::couldNot("examine", path, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return support::couldNot("read", path, S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    }
    std::string bytes;
    if (!support::readAll(file, bytes)) {
        return support::couldNot("read", path, errno);
    }
    auto root = parsePlistNode(bytes);
    if (!root) {
        return support::couldNot("read", path, root.message(), root.error());
    }
    if (plist_get_node_type(root->get()) != PLIST_DICT) {
        return support::couldNot("read", path, "the top level is not a dictionary", EINVAL);
    }
    JobKeys keys(root->get(), path);
    LaunchdJob job;
    job.program = keys.text("Program");
    job.programArguments = keys.strings("ProgramArguments");
    job.userName = keys.text("UserName");
    job.groupName = keys.text("GroupName");
    job.workingDirectory = keys.text("WorkingDirectory");
    job.standardOutPath = keys.text("StandardOutPath");
    job.standardErrorPath = keys.text("StandardErrorPath");
    job.environmentVariables = keys.textsByName("EnvironmentVariables");
    job.umask = keys.mask("Umask");
    job.exitTimeOutSeconds = keys.positiveNumber("ExitTimeOut", kDefaultExitTimeOutSeconds);
    job.runAtLoad = keys.flag("RunAtLoad");
    job.disabled = keys.flag("Disabled");
    if (keys.failure()) {
        return *keys.failure();
    }
    return job;
}

}  // namespace velnor
