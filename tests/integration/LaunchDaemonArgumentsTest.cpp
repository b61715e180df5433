// The library's own line behind the host, which refuses such requests first: a rewrite of the
// launch arguments that cannot be done exactly, or at all, leaves the job file as it was.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "HostLibTestSupport.h"
#include "LaunchDaemon.h"
#include "PropertyListFile.h"

namespace velnor {
namespace {

TEST(LaunchDaemonArguments, SetThatCannotBeDoneLeavesTheJobFileWhole) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "writing as another account needs root";
    }
    testing::TemporaryFolder folder;
    ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
    const std::string jobs = folder / "LaunchDaemons";
    ASSERT_EQ(::mkdir(jobs.c_str(), 0555), 0);
    const std::string path = jobs + "/job.plist";
    const PlistDictionary job{{"Label", "org.example.job"},
                              {"ProgramArguments", PlistArray{"/old"}}};
    ASSERT_TRUE(writePropertyListAtomically(path, PlistValue(job)));
    ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
    const std::string old = testing::fileText(path);
    const struct {
        std::string argument;
        bool byNobody;  // in a folder that nobody may not change
    } rows[] = {{std::string("a\0b", 3), false},
                {"a\x01", false},
                {"a\r", false},
                {"\xef\xbf\xbe", false},
                {"fine", true}};
    for (const auto& row : rows) {
        const auto refused = [&] {
            return !SetLaunchDaemonServiceConfigArgs(path, {"/new", row.argument});
        };
        EXPECT_TRUE(row.byNobody ? testing::runAsNobody(refused) : refused()) << row.argument;
        EXPECT_EQ(testing::fileText(path), old) << row.argument;
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(jobs), {}), 1)
            << "a temporary stays";
    }
}

}  // namespace
}  // namespace velnor
