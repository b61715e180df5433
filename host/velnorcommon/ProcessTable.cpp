#include "ProcessTable.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <memory>
#include <mutex>

#include "ProcessTableReader.h"
#include "WholeFile.h"

namespace velnor {
namespace {

// The tables that the library keeps for its callers. The one handed out last stays untouched
// until the next call has read a whole new one, so that a failed call leaves it valid; the two
// swap places, and their memory is reused from call to call.
struct KeptTables {
    std::mutex mutex;
    std::vector<kinfo_proc> handedOut;
    std::vector<kinfo_proc> reading;
};

KeptTables& keptTables() {
    static KeptTables tables;
    return tables;
}

std::optional<std::int32_t> pidOfEntry(std::string_view name) {
    std::int32_t pid = 0;
    auto [past, failure] = std::from_chars(name.data(), name.data() + name.size(), pid);
    if (name.empty() || failure != std::errc() || past != name.data() + name.size() || pid <= 0) {
        return std::nullopt;
    }
    return pid;
}

struct CloseFolder {
    void operator()(DIR* folder) const { ::closedir(folder); }
};

}  // namespace

std::optional<uid_t> parseEffectiveUid(std::string_view status) {
    constexpr std::string_view kUidLine = "Uid:";
    std::size_t start = 0;
    while (start < status.size()) {
        const std::size_t end = std::min(status.find('\n', start), status.size());
        std::string_view line = status.substr(start, end - start);
        start = end + 1;
        if (line.substr(0, kUidLine.size()) != kUidLine) {
            continue;
        }
        // "Uid:\treal\teffective\tsaved\tfilesystem"
        line.remove_prefix(kUidLine.size());
        for (int field = 0; field < 2; ++field) {
            line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
            uid_t uid = 0;
            auto [past, failure] = std::from_chars(line.data(), line.data() + line.size(), uid);
            if (failure != std::errc()) {
                return std::nullopt;
            }
            if (field == 1) {
                return uid;
            }
            line.remove_prefix(static_cast<std::size_t>(past - line.data()));
        }
    }
    return std::nullopt;
}

int readProcessTable(const std::string& procRoot, std::vector<kinfo_proc>& table) {
    table.clear();
    std::unique_ptr<DIR, CloseFolder> folder(::opendir(procRoot.c_str()));
    if (!folder) {
        return errno;
    }
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(folder.get());
        if (entry == nullptr) {
            return errno;
        }
        auto pid = pidOfEntry(entry->d_name);
        if (!pid) {
            continue;
        }
        // A process that has ended since it was listed has no status any more.
        const auto status = readWholeFile(procRoot + "/" + entry->d_name + "/status");
        if (!status) {
            continue;
        }
        auto uid = parseEffectiveUid(*status);
        if (!uid) {
            continue;
        }
        kinfo_proc record{};
        record.kp_proc.p_pid = *pid;
        record.kp_eproc.e_ucred.cr_uid = *uid;
        table.push_back(record);
    }
}

std::int32_t getProcessTableFrom(const std::string& procRoot, kinfo_proc** table,
                                 std::size_t* count) {
    KeptTables& kept = keptTables();
    std::lock_guard lock(kept.mutex);
    // Any value but 0 is a failure; the system's reason, negated, is the most useful one.
    if (const int error = readProcessTable(procRoot, kept.reading); error != 0) {
        return -error;
    }
    kept.handedOut.swap(kept.reading);
    *table = kept.handedOut.data();
    *count = kept.handedOut.size();
    return 0;
}

}  // namespace velnor

extern "C" std::int32_t ec_get_process_table(kinfo_proc** table, std::size_t* count) {
    return velnor::getProcessTableFrom("/proc", table, count);
}
