// The process table of this machine, as the host sees it through the kernel's call.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

#include "HostLibTestSupport.h"
#include "ProcessTable.h"
#include "ProcessTableReader.h"

namespace velnor {
namespace {

std::optional<uid_t> uidIn(const kinfo_proc* table, std::size_t count, pid_t pid) {
    for (std::size_t i = 0; i < count; ++i) {
        if (table[i].kp_proc.p_pid == pid) {
            return table[i].kp_eproc.e_ucred.cr_uid;
        }
    }
    return std::nullopt;
}

// A child that waits until the write end of release is closed everywhere; it has the uids that
// this process has when it is forked.
pid_t forkWaitingChild(const int release[2]) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        char ignored;
        ::close(release[1]);
        ::_exit(::read(release[0], &ignored, 1) == 0 ? 0 : 1);
    }
    return pid;
}

TEST(ProcessTable, ListsThisProcessAndItsChildrenWithTheirEffectiveUids) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "a child of another effective uid needs root";
    }
    const uid_t nobody = testing::nobody().uid;
    int release[2];
    ASSERT_EQ(::pipe(release), 0);
    const pid_t asRoot = forkWaitingChild(release);
    // Only the effective uid changes; the real and saved ones stay root's.
    const bool becameNobody = ::seteuid(nobody) == 0;
    const pid_t asNobody = forkWaitingChild(release);
    const bool becameRootAgain = ::seteuid(0) == 0;
    EXPECT_TRUE(becameNobody && becameRootAgain && asRoot > 0 && asNobody > 0);

    for (int call = 1; call <= 2; ++call) {
        kinfo_proc* table = nullptr;
        std::size_t count = 0;
        EXPECT_EQ(ec_get_process_table(&table, &count), 0) << "call " << call;
        EXPECT_EQ(uidIn(table, count, ::getpid()), ::geteuid()) << "call " << call;
        EXPECT_EQ(uidIn(table, count, asRoot), 0u) << "call " << call;
        EXPECT_EQ(uidIn(table, count, asNobody), nobody)
            << "call " << call << ": the real uid was taken for the effective one";
    }
    ::close(release[1]);
    ::close(release[0]);
    EXPECT_EQ(::waitpid(asRoot, nullptr, 0), asRoot);
    EXPECT_EQ(::waitpid(asNobody, nullptr, 0), asNobody);
}

TEST(ProcessTable, TakesOnlyProcessFoldersAndSkipsProcessesThatEndedMeanwhile) {
    testing::TemporaryFolder proc;
    for (const char* name : {"42", "77", "0x10"}) {
        std::filesystem::create_directory(proc / name);
    }
    testing::writeText(proc / "42/status", "Name:\tpostgres\nUid:\t1000\t216\t1000\t1000\n");
    testing::writeText(proc / "0x10/status", "Uid:\t1\t1\t1\t1\n");
    std::filesystem::create_directory_symlink(proc / "42", proc / "self");
    // 77 has no status file: it ended between the listing and the read.

    kinfo_proc* table = nullptr;
    std::size_t count = 0;
    ASSERT_EQ(getProcessTableFrom(proc.path(), &table, &count), 0);

    ASSERT_EQ(count, 1u);
    EXPECT_EQ(uidIn(table, count, 42), 216u);
}

}  // namespace
}  // namespace velnor
