// The file system on this machine: folders and files get exactly the attributes asked for,
// whatever the umask, and failures leave nothing behind.
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Unprivileged.h"
#include "platform/FileSystem.h"

namespace velnor::platform {
namespace {

const std::string kUnknownAccount = "velnor-test-no-such-account";

// Sets the process's umask for one scope.
class UmaskScope {
  public:
    explicit UmaskScope(mode_t mask) : previous_(umask(mask)) {}
    ~UmaskScope() { umask(previous_); }
    UmaskScope(const UmaskScope&) = delete;
    UmaskScope& operator=(const UmaskScope&) = delete;

  private:
    mode_t previous_;
};

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

void writeText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

// Every test works in a fresh folder under /tmp, removed with everything in it.
class FileSystemTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "giving files to other accounts needs root";
        }
        std::string pattern = "/tmp/velnor-fs-XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr) << "no temporary folder under /tmp";
        folder_ = pattern;
    }
    void TearDown() override {
        std::error_code ignored;
        if (!folder_.empty()) {
            std::filesystem::remove_all(folder_, ignored);
        }
    }

    std::string path(const std::string& relative) const { return folder_ + "/" + relative; }

    std::string folder_;
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
        const UmaskScope scope(item.umask);
        const std::string top = path("umask-" + std::to_string(item.umask));
        SCOPED_TRACE(top);

        const FileSystemStatus status = createDirectory(top + "/parent/folder", item.attributes);

        ASSERT_TRUE(status.succeeded) << status.error;
        for (const std::string& created : {top, top + "/parent", top + "/parent/folder"}) {
            EXPECT_EQ(attributesOf(created), item.expected) << created;
        }
    }
    EXPECT_EQ(attributesOf(folder_), "0700 root:root") << "the folder above must be untouched";
}

TEST_F(FileSystemTest, WithoutAttributesNewFoldersGetTheUmaskAndTheCallersOwnership) {
    const UmaskScope scope(027);

    const FileSystemStatus status = createDirectory(path("plain/folder/"), std::nullopt);

    ASSERT_TRUE(status.succeeded) << status.error;
    EXPECT_EQ(attributesOf(path("plain")), "0750 root:root");
    EXPECT_EQ(attributesOf(path("plain/folder")), "0750 root:root");
}

TEST_F(FileSystemTest, FolderAlreadyThereIsSuccessAndKeepsItsAttributes) {
    const std::string existing = path("existing");
    ASSERT_EQ(mkdir(existing.c_str(), 0711), 0);
    ASSERT_EQ(chmod(existing.c_str(), 0711), 0);
    const std::string link = path("link");
    ASSERT_EQ(symlink(existing.c_str(), link.c_str()), 0);

    for (const std::string& target : {existing, existing + "/", link}) {
        const FileSystemStatus status = createDirectory(target, {{0750, "daemon", "daemon"}});
        EXPECT_TRUE(status.succeeded) << target << ": " << status.error;
    }
    EXPECT_EQ(attributesOf(existing), "0711 root:root");
    EXPECT_EQ(attributesOf(link), "0777 root:root") << "the link must stay a link";
}

TEST_F(FileSystemTest, NonFolderInTheWayFailsWithOneLineNamingWhereItStopped) {
    const std::string file = path("file");
    writeText(file, "keep me");
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
            const FileSystemStatus status = createDirectory(target, attributes);
            EXPECT_FALSE(status.succeeded) << target;
            EXPECT_EQ(status.error, error);
        }
    }
    EXPECT_EQ(contentsOf(file), "keep me");
    EXPECT_FALSE(fileExists(path("nowhere"))) << "a dangling link must not be followed";
}

TEST_F(FileSystemTest, UnknownAccountFailsBeforeAnythingIsCreated) {
    const std::string target = path("parent/folder");

    const FileSystemStatus owner = createDirectory(target, {{0750, kUnknownAccount, "daemon"}});
    const FileSystemStatus group = createDirectory(target, {{0750, "daemon", kUnknownAccount}});

    EXPECT_EQ(owner.error, "unknown account \"" + kUnknownAccount + "\"");
    EXPECT_EQ(group.error, "unknown group \"" + kUnknownAccount + "\"");
    EXPECT_FALSE(owner.succeeded || group.succeeded);
    EXPECT_FALSE(fileExists(path("parent"))) << "a failed call must leave no folder";
}

TEST_F(FileSystemTest, FolderThatCannotBeGivenItsOwnerIsRemovedWithItsNewParents) {
    // nobody may make folders here but may not give them to daemon.
    const std::string top = path("nobodys");
    ASSERT_EQ(chmod(folder_.c_str(), 0711), 0);
    ASSERT_EQ(mkdir(top.c_str(), 0755), 0);
    const passwd* nobody = getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    ASSERT_EQ(chown(top.c_str(), nobody->pw_uid, nobody->pw_gid), 0);

    const std::string error = integration::runAsNobody([&] {
        const FileSystemStatus status =
            createDirectory(top + "/new/folder", {{0750, "daemon", "daemon"}});
        return status.succeeded ? std::string("succeeded") : status.error;
    });

    EXPECT_EQ(error, "could not set owner of \"" + top +
                         "/new\" to daemon:daemon: Operation not permitted");
    EXPECT_FALSE(fileExists(top + "/new")) << "the folder made before the failure must go";
}

TEST_F(FileSystemTest, SetAttributesGivesExactlyWhatIsAskedForAndFollowsLinks) {
    const UmaskScope scope(077);
    const std::string file = path("file");
    writeText(file, "x");
    const std::string folder = path("data");
    ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
    const std::string link = path("data-link");
    ASSERT_EQ(symlink(folder.c_str(), link.c_str()), 0);

    const FileSystemStatus onFile = setAttributes(file, {04751, "daemon", "daemon"});
    const FileSystemStatus onLink = setAttributes(link, {0700, "daemon", "nogroup"});

    ASSERT_TRUE(onFile.succeeded) << onFile.error;
    ASSERT_TRUE(onLink.succeeded) << onLink.error;
    EXPECT_EQ(attributesOf(file), "4751 daemon:daemon") << "set-user-id must survive chown";
    EXPECT_EQ(attributesOf(folder), "0700 daemon:nogroup") << "the folder that the link names";
    EXPECT_EQ(attributesOf(link), "0777 root:root") << "the link itself keeps its owner";
}

TEST_F(FileSystemTest, SetAttributesFailsWithOneLineAndChangesNothing) {
    const std::string file = path("file");
    writeText(file, "x");
    ASSERT_EQ(chmod(file.c_str(), 0644), 0);
    const std::string missing = path("missing");

    const FileSystemStatus onMissing = setAttributes(missing, {0700, "daemon", "daemon"});
    const FileSystemStatus unknown = setAttributes(file, {0700, "daemon", kUnknownAccount});

    EXPECT_FALSE(onMissing.succeeded || unknown.succeeded);
    EXPECT_EQ(onMissing.error, "could not set owner of \"" + missing +
                                   "\" to daemon:daemon: No such file or directory");
    EXPECT_EQ(unknown.error, "unknown group \"" + kUnknownAccount + "\"");
    EXPECT_EQ(attributesOf(file), "0644 root:root");
}

TEST_F(FileSystemTest, CreateFileWritesOrReplacesWithExactAttributesWhateverTheUmask) {
    const UmaskScope scope(000);
    const std::string fresh = path("fresh");
    const std::string replaced = path("replaced");
    writeText(replaced, "a much longer text than what replaces it");
    ASSERT_EQ(chmod(replaced.c_str(), 0644), 0);

    // Set-id bits must survive the change of owner.
    ASSERT_TRUE(createFile(fresh, "contents\n", {04750, "daemon", "daemon"}));
    ASSERT_TRUE(createFile(replaced, "", {0600, "nobody", "nogroup"}));

    EXPECT_EQ(attributesOf(fresh), "4750 daemon:daemon");
    EXPECT_EQ(contentsOf(fresh), "contents\n");
    EXPECT_EQ(attributesOf(replaced), "0600 nobody:nogroup");
    EXPECT_EQ(contentsOf(replaced), "") << "the old contents must be gone";
}

TEST_F(FileSystemTest, CreateFileRefusesLinksUnknownAccountsAndMissingFolders) {
    const std::string target = path("target");
    writeText(target, "untouched");
    ASSERT_EQ(chmod(target.c_str(), 0644), 0);
    const std::string link = path("link");
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    const FileAttributes attributes{0600, "daemon", "daemon"};

    EXPECT_FALSE(createFile(link, "new", attributes)) << "a link must not be written through";
    EXPECT_FALSE(createFile(path("unknown"), "new", {0600, kUnknownAccount, "daemon"}));
    EXPECT_FALSE(createFile(path("missing/marker"), "new", attributes));

    EXPECT_EQ(contentsOf(target), "untouched");
    EXPECT_EQ(attributesOf(target), "0644 root:root");
    EXPECT_EQ(attributesOf(path("unknown")), "missing") << "a refused file must not be created";
}

TEST_F(FileSystemTest, FileExistsCountsALinkAsWhatItPointsTo) {
    const std::string file = path("file");
    writeText(file, "x");
    const std::string folder = path("folder");
    ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
    const std::string folderLink = path("folder-link");
    ASSERT_EQ(symlink(folder.c_str(), folderLink.c_str()), 0);
    const std::string dangling = path("dangling");
    ASSERT_EQ(symlink(path("nowhere").c_str(), dangling.c_str()), 0);

    for (const auto& [entry, isFolder] :
         {std::pair{file, false}, std::pair{folder, true}, std::pair{folderLink, true}}) {
        bool isDirectory = !isFolder;
        EXPECT_TRUE(fileExists(entry, &isDirectory)) << entry;
        EXPECT_EQ(isDirectory, isFolder) << entry;
        EXPECT_TRUE(fileExists(entry)) << entry;
    }
    for (const std::string& nothing : {dangling, path("missing"), file + "/below"}) {
        for (const bool preset : {true, false}) {
            bool isDirectory = preset;
            EXPECT_FALSE(fileExists(nothing, &isDirectory)) << nothing;
            EXPECT_EQ(isDirectory, preset) << nothing << ": the flag is for entries that exist";
        }
    }
}

}  // namespace
}  // namespace velnor::platform
