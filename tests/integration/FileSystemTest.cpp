// The file system on this machine: set-id bits survive the change of owner. Exact modes and
// owners whatever the umask, and failures in one line, are shown with the real host.
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "HostLibTestSupport.h"
#include "platform/FileSystem.h"

namespace velnor::platform {
namespace {

// Permissions, owner and group of the entry itself, as "0750 daemon:nogroup".
std::string attributesOf(const std::string& path) {
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) {
        return "missing";
    }
    const passwd* owner = getpwuid(status.st_uid);
    const group* group = getgrgid(status.st_gid);
    char permissions[8];
    std::snprintf(permissions, sizeof permissions, "%04o", status.st_mode & 07777u);
    return std::string(permissions) + " " + (owner ? owner->pw_name : "?") + ":" +
           (group ? group->gr_name : "?");
}

class FileSystemTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "giving folders to other accounts needs root";
        }
    }

    testing::TemporaryFolder folder_;
};

TEST_F(FileSystemTest, SetIdBitsOfANewFolderWithItsParentsAndOfAReplacedFileSurvive) {
    const std::string top = folder_ / "top";
    const auto status = createDirectory(top + "/folder", {{02770, "daemon", "nogroup"}});
    ASSERT_TRUE(status.ok()) << status.message();
    EXPECT_EQ(attributesOf(top), "2770 daemon:nogroup");
    EXPECT_EQ(attributesOf(top + "/folder"), "2770 daemon:nogroup");
    EXPECT_EQ(attributesOf(folder_.path()), "0700 root:root") << "the folder above is untouched";

    const std::string file = folder_ / "file";
    testing::writeText(file, "a much longer text than what replaces it");
    ASSERT_TRUE(createFile(file, "contents\n", {04750, "daemon", "daemon"}));
    EXPECT_EQ(testing::fileText(file), "contents\n");
    EXPECT_EQ(attributesOf(file), "4750 daemon:daemon");
}

}  // namespace
}  // namespace velnor::platform
