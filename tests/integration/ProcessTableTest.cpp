// The process table read from a crafted /proc: the real one is read whenever a stop looks for
// idle clients.
#include <gtest/gtest.h>

#include <filesystem>

#include "HostLibTestSupport.h"
#include "ProcessTableReader.h"

namespace velnor {
namespace {

TEST(ProcessTable, TakesOnlyProcessFoldersTheirEffectiveUidAndSkipsProcessesThatEndedMeanwhile) {
    testing::TemporaryFolder proc;
    for (const char* name : {"42", "77", "0x10"}) {
        std::filesystem::create_directory(proc / name);
    }
    testing::writeText(proc / "42/status", "Name:\tpostgres\nUid:\t1000\t216\t1000\t1000\n");
    testing::writeText(proc / "0x10/status", "Uid:\t1\t1\t1\t1\n");
    std::filesystem::create_directory_symlink(proc / "42", proc / "self");
    // 77 has no status file: it ended between the listing and the read.

    for (int call = 1; call <= 2; ++call) {  // the second reuses the tables of the first
        kinfo_proc* table = nullptr;
        std::size_t count = 0;
        ASSERT_EQ(getProcessTableFrom(proc.path(), &table, &count), 0);
        ASSERT_EQ(count, 1u) << "call " << call;
        EXPECT_EQ(table[0].kp_proc.p_pid, 42);
        EXPECT_EQ(table[0].kp_eproc.e_ucred.cr_uid, 216u) << "the effective uid, not the real one";
    }
}

}  // namespace
}  // namespace velnor
