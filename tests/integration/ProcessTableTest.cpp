// The process table, from this machine's /proc and from made-up ones.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <vector>

#include "HostLibTestSupport.h"
#include "ProcessTable.h"
#include "ProcessTableReader.h"

namespace velnor {
namespace {

using ::testing::ElementsAreArray;
using testing::TemporaryFolder;

struct Entry {
    std::int32_t pid;
    uid_t uid;
    bool operator==(const Entry&) const = default;
};

void PrintTo(const Entry& entry, std::ostream* out) {
    *out << "{pid " << entry.pid << ", uid " << entry.uid << "}";
}

std::vector<Entry> entriesOf(const kinfo_proc* table, std::size_t count) {
    std::vector<Entry> entries;
    for (std::size_t i = 0; i < count; ++i) {
        entries.push_back({table[i].kp_proc.p_pid, table[i].kp_eproc.e_ucred.cr_uid});
    }
    return entries;
}

std::optional<uid_t> uidOf(const std::vector<Entry>& entries, pid_t pid) {
    for (const auto& entry : entries) {
        if (entry.pid == pid) {
            return entry.uid;
        }
    }
    return std::nullopt;
}

// A child that waits, with the effective uid given, until the test lets it end.
class WaitingChild {
  public:
    explicit WaitingChild(std::optional<uid_t> effectiveUid) {
        int ready[2];
        int release[2];
        if (::pipe(ready) != 0 || ::pipe(release) != 0) {
            throw std::runtime_error("cannot create pipes");
        }
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(ready[0]);
            ::close(release[1]);
            // Only the effective uid changes; the real and saved ones stay root's.
            const bool changed = !effectiveUid || ::setresuid(-1, *effectiveUid, -1) == 0;
            const char answer = changed ? 'y' : 'n';
            char ignored;
            bool told = ::write(ready[1], &answer, 1) == 1;
            ::_exit(told && ::read(release[0], &ignored, 1) == 0 ? 0 : 1);
        }
        ::close(ready[1]);
        ::close(release[0]);
        release_ = release[1];
        char answer = 'n';
        ready_ = ::read(ready[0], &answer, 1) == 1 && answer == 'y';
        ::close(ready[0]);
    }
    ~WaitingChild() {
        ::close(release_);
        ::waitpid(pid_, nullptr, 0);
    }
    WaitingChild(const WaitingChild&) = delete;
    WaitingChild& operator=(const WaitingChild&) = delete;

    pid_t pid() const { return pid_; }
    bool ready() const { return ready_; }

  private:
    pid_t pid_ = -1;
    int release_ = -1;
    bool ready_ = false;
};

TEST(ProcessTable, ListsThisProcessAndItsChildrenWithTheirEffectiveUids) {
    const uid_t nobody = testing::nobody().uid;
    WaitingChild asRoot(std::nullopt);
    WaitingChild asNobody(nobody);
    ASSERT_TRUE(asRoot.ready() && asNobody.ready());

    for (int call = 1; call <= 2; ++call) {
        kinfo_proc* table = nullptr;
        std::size_t count = 0;
        ASSERT_EQ(ec_get_process_table(&table, &count), 0) << "call " << call;
        const auto entries = entriesOf(table, count);
        EXPECT_EQ(uidOf(entries, ::getpid()), ::geteuid()) << "call " << call;
        EXPECT_EQ(uidOf(entries, asRoot.pid()), 0u) << "call " << call;
        EXPECT_EQ(uidOf(entries, asNobody.pid()), nobody)
            << "call " << call << ": the real uid was taken for the effective one";
    }
}

TEST(ProcessTable, TakesNumericEntriesInFolderOrderAndSkipsVanishedProcesses) {
    TemporaryFolder proc;
    auto addProcess = [&](const std::string& name, const std::optional<std::string>& status) {
        std::filesystem::create_directory(proc / name);
        if (status) {
            testing::writeText(proc / name + "/status", *status);
        }
    };
    addProcess("1", "Name:\tinit\nUid:\t0\t0\t0\t0\nGid:\t0\t0\t0\t0\n");
    addProcess("42", "Name:\tpostgres\nUid:\t1000\t216\t1000\t1000\nGid:\t216\t216\t216\t216\n");
    addProcess("4194304", "Uid:\t5\t6\t7\t8\n");
    addProcess("77", std::nullopt);  // ended between the listing and the read
    addProcess("0x10", "Uid:\t1\t1\t1\t1\n");
    addProcess("sys", "Uid:\t1\t1\t1\t1\n");
    std::filesystem::create_directory_symlink(proc / "42", proc / "self");
    const std::vector<Entry> valid{{1, 0}, {42, 216}, {4194304, 6}};
    std::vector<Entry> expected;
    for (const auto& entry : std::filesystem::directory_iterator(proc.path())) {
        for (const auto& candidate : valid) {
            if (entry.path().filename() == std::to_string(candidate.pid)) {
                expected.push_back(candidate);
            }
        }
    }

    kinfo_proc* table = nullptr;
    std::size_t count = 0;
    ASSERT_EQ(getProcessTableFrom(proc.path(), &table, &count), 0);

    EXPECT_THAT(entriesOf(table, count), ElementsAreArray(expected));
}

TEST(ProcessTable, FailureLeavesTheOutputsAndTheLastTableAlone) {
    kinfo_proc* table = nullptr;
    std::size_t count = 0;
    ASSERT_EQ(ec_get_process_table(&table, &count), 0);
    const auto before = entriesOf(table, count);
    kinfo_proc* const lastTable = table;
    const std::size_t lastCount = count;

    EXPECT_EQ(getProcessTableFrom("/nonexistent/proc", &table, &count), -ENOENT);

    EXPECT_EQ(table, lastTable);
    EXPECT_EQ(count, lastCount);
    EXPECT_EQ(entriesOf(table, count), before) << "a failed call spoilt the table handed out";
}

TEST(ProcessTable, EffectiveUidIsTheSecondNumberOfTheUidLine) {
    EXPECT_EQ(parseEffectiveUid("Uid:\t1\t2\t3\t4\n"), 2u);
    EXPECT_EQ(parseEffectiveUid("Name:\tx\nUid:\t0\t65534\t0\t0\nGid:\t9\t9\t9\t9\n"), 65534u);
    EXPECT_EQ(parseEffectiveUid("Uid:  10   20 30 40"), 20u);
    EXPECT_EQ(parseEffectiveUid("Uid:\t4294967294\t4294967294\t0\t0\n"), 4294967294u);
    EXPECT_EQ(parseEffectiveUid("Gid:\t1\t2\t3\t4\n"), std::nullopt);
    EXPECT_EQ(parseEffectiveUid("Uid:\t1\n"), std::nullopt);
    EXPECT_EQ(parseEffectiveUid("Uid:\t1\tx\n"), std::nullopt);
    EXPECT_EQ(parseEffectiveUid("XUid:\t1\t2\t3\t4\n"), std::nullopt);
    EXPECT_EQ(parseEffectiveUid(""), std::nullopt);
}

}  // namespace
}  // namespace velnor
