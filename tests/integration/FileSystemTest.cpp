// The file system on this machine: folders and files get exactly the attributes asked for,
// whatever the umask, and a failure says in one line where it stopped.
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

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

std::string contentsOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Every test works in a fresh folder under /tmp, removed with everything in it, and leaves the
// umask as it found it.
class FileSystemTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "giving folders to other accounts needs root";
        }
        ASSERT_NE(mkdtemp(folder_.data()), nullptr) << "no temporary folder under /tmp";
    }
    void TearDown() override {
        umask(umask_);
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }

    std::string path(const std::string& relative) const { return folder_ + "/" + relative; }

    std::string folder_ = "/tmp/velnor-fs-XXXXXX";
    const mode_t umask_ = umask(022);
};

TEST_F(FileSystemTest, NewFolderAndEveryNewParentGetExactAttributesWhateverTheUmask) {
    struct Case {
        mode_t umask;
        FileAttributes attributes;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {077, {0750, "daemon", "daemon"}, "0750 daemon:daemon"},
        {000, {0755, "nobody", "nogroup"}, "0755 nobody:nogroup"},
        // Set-id bits must survive the change of owner.
        {022, {02770, "daemon", "nogroup"}, "2770 daemon:nogroup"},
    };
    for (const Case& item : cases) {
        umask(item.umask);
        const std::string top = path("umask-" + std::to_string(item.umask));
        SCOPED_TRACE(top);

        const support::Status status = createDirectory(top + "/parent/folder", item.attributes);

        ASSERT_TRUE(status) << status.message();
        for (const std::string& created : {top, top + "/parent", top + "/parent/folder"}) {
            EXPECT_EQ(attributesOf(created), item.expected) << created;
        }
    }
    EXPECT_EQ(attributesOf(folder_), "0700 root:root") << "the folder above must be untouched";
}

TEST_F(FileSystemTest, NonFolderInTheWayFailsWithOneLineNamingWhereItStopped) {
    const std::string file = path("file");
    std::ofstream(file) << "keep me";
    const std::string dangling = path("dangling");
    ASSERT_EQ(symlink(path("nowhere").c_str(), dangling.c_str()), 0);
    const std::vector<std::pair<std::string, std::string>> cases = {
        {file, "could not create folder \"" + file + "\": File exists"},
        {file + "/child/grandchild",
         "could not create folder \"" + file + "/child\": Not a directory"},
        {dangling, "could not create folder \"" + dangling + "\": File exists"},
    };
    for (const auto& [target, error] : cases) {
        for (const auto& attributes : {std::optional<FileAttributes>({0750, "daemon", "daemon"}),
                                       std::optional<FileAttributes>()}) {
            const support::Status status = createDirectory(target, attributes);
            EXPECT_FALSE(status) << target;
            EXPECT_EQ(status.message(), error);
        }
    }
    EXPECT_EQ(contentsOf(file), "keep me");
    EXPECT_FALSE(fileExists(path("nowhere"))) << "a dangling link must not be followed";
}

TEST_F(FileSystemTest, CreateFileWritesOrReplacesWithExactAttributesWhateverTheUmask) {
    umask(000);
    const std::string fresh = path("fresh");
    const std::string replaced = path("replaced");
    std::ofstream(replaced) << "a much longer text than what replaces it";

    // Set-id bits must survive the change of owner.
    ASSERT_TRUE(createFile(fresh, "contents\n", {04750, "daemon", "daemon"}));
    ASSERT_TRUE(createFile(replaced, "", {0600, "nobody", "nogroup"}));

    EXPECT_EQ(attributesOf(fresh), "4750 daemon:daemon");
    EXPECT_EQ(contentsOf(fresh), "contents\n");
    EXPECT_EQ(attributesOf(replaced), "0600 nobody:nogroup");
    EXPECT_EQ(contentsOf(replaced), "") << "the old contents must be gone";
}

}  // namespace
}  // namespace velnor::platform
