// The audit trail on real files: whole lines flushed in a folder of root's alone, the rotation,
// refusing what another account could write, and a change refused to another account when it
// cannot be recorded. Run as root, as CI runs them.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "AuditHistory.h"
#include "AuditTrail.h"
#include "Conclusion.h"

namespace velnor::host {
namespace {

namespace fs = std::filesystem;

struct TemporaryFolder {
    std::string path = [] {
        std::string pattern = "/tmp/velnor-audit-XXXXXX";
        return ::mkdtemp(pattern.data()) ? pattern
                                         : throw std::runtime_error("no temporary folder");
    }();
    std::string trail = path + "/trail";
    std::string file = trail + "/audit.jsonl";
    ~TemporaryFolder() { fs::remove_all(path); }
};

std::string contentsOf(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    ::chmod(path.c_str(), 0600);
}

AuditRecord recordOf(std::string verb) {
    AuditRecord record;
    record.time = std::chrono::system_clock::now();
    record.caller = Caller{0, "root", 1, Channel::InProcess, {}};
    record.verb = std::move(verb);
    return record;
}

// Every record of the trail's files, oldest first.
TrailReading readAll(const AuditTrail& trail) {
    support::Result<std::vector<std::string>> files = trail.readFiles();
    TrailReading reading;
    for (const std::string& text : files ? *files : std::vector<std::string>()) {
        readTrailText(text, "", reading);
    }
    return reading;
}

std::string modeOf(const std::string& path) {
    struct stat status;
    ::lstat(path.c_str(), &status);
    return std::to_string(status.st_uid) + " " + std::to_string(status.st_mode & 07777);
}

TEST(AuditTrail, AppendsWholeLinesInAFolderAndFileOfRootsAlone) {
    TemporaryFolder folder;
    AuditTrail trail(folder.trail);
    ASSERT_TRUE(trail.append(recordOf("start"))) << "the folder is created";
    ASSERT_TRUE(trail.append(recordOf("stop")));
    EXPECT_EQ(modeOf(folder.trail), "0 448") << "root's, 0700";
    EXPECT_EQ(modeOf(folder.file), "0 384") << "root's, 0600";
    TrailReading reading = readAll(trail);
    ASSERT_EQ(reading.records.size(), 2u);
    EXPECT_EQ(reading.unreadable, 0u);
    // A line left unfinished (a machine that lost power mid-write) is not glued to the next.
    std::ofstream(folder.file, std::ios::app) << "{\"torn\":";
    ASSERT_TRUE(trail.append(recordOf("restart")));
    reading = readAll(trail);
    EXPECT_EQ(reading.records.size(), 3u);
    EXPECT_EQ(reading.unreadable, 1u);
}

TEST(AuditTrail, RotatesBySizeKeepingFiveFilesAndLosingNoRecordAcrossAGap) {
    TemporaryFolder folder;
    AuditTrail trail(folder.trail);
    ASSERT_TRUE(trail.checkWritable());
    for (int number = 1; number <= kAuditKeptFiles; ++number) {
        writeFile(folder.file + "." + std::to_string(number), std::to_string(number) + "\n");
    }
    // A rotation killed after it moved .2 up left no .2; the next one goes on past the gap.
    fs::remove(folder.file + ".2");
    writeFile(folder.file, std::string(kAuditFileLimit - 10, 'x') + "\n");
    ASSERT_TRUE(trail.append(recordOf("start")));
    support::Result<std::vector<std::string>> read = trail.readFiles();
    ASSERT_TRUE(read) << read.message();
    const std::vector<std::string>& files = *read;
    ASSERT_EQ(files.size(), 5u) << "the gap moved up a number";
    EXPECT_EQ(files[0], "4\n") << ".5 was dropped, .4 moved up";
    EXPECT_EQ(files[1], "3\n");
    EXPECT_EQ(files[2], "1\n") << ".1 became .2";
    EXPECT_EQ(files[3].size(), kAuditFileLimit - 9) << "the full file became .1";
    EXPECT_NE(files[4].find("\"verb\":\"start\""), std::string::npos) << "in a new file";
}

// Whatever another account could write, or a link, is refused, and nothing is written through
// it: the file a link names and another account's file keep every byte.
TEST(AuditTrail, RefusesAFolderOrFileThatIsNotRootsAloneOrIsALink) {
    const struct {
        const char* what;
        void (*plant)(const TemporaryFolder&);
        const char* reason;
    } cases[] = {
        {"a folder that is a link",
         [](const TemporaryFolder& f) { fs::create_directory_symlink(f.path, f.trail); },
         "it is a symbolic link"},
        {"another account's folder",
         [](const TemporaryFolder& f) {
             fs::create_directory(f.trail);
             ::chown(f.trail.c_str(), 1000, 1000);
         },
         "it belongs to uid 1000, not root"},
        {"a folder others may write to",
         [](const TemporaryFolder& f) {
             fs::create_directory(f.trail);
             ::chmod(f.trail.c_str(), 0777);
         },
         "others may write to it"},
        {"a file that is a link",
         [](const TemporaryFolder& f) {
             fs::create_directory(f.trail);
             fs::create_symlink(f.path + "/target", f.file);
         },
         "it is a symbolic link"},
        {"another account's file",
         [](const TemporaryFolder& f) {
             fs::create_directory(f.trail);
             writeFile(f.file, "theirs\n");
             ::chown(f.file.c_str(), 1000, 1000);
         },
         "it belongs to uid 1000, not root"},
        {"a file with another name",
         [](const TemporaryFolder& f) {
             fs::create_directory(f.trail);
             fs::create_hard_link(f.path + "/target", f.file);
         },
         "it has another name (a hard link)"},
        {"a file others may read",
         [](const TemporaryFolder& f) {
             fs::create_directory(f.trail);
             writeFile(f.file, "");
             ::chmod(f.file.c_str(), 0644);
         },
         "others may read or write it"},
        {"a FIFO",
         [](const TemporaryFolder& f) {
             fs::create_directory(f.trail);
             ::mkfifo(f.file.c_str(), 0600);
         },
         "it is not a regular file"},
    };
    for (const auto& [what, plant, reason] : cases) {
        TemporaryFolder folder;
        writeFile(folder.path + "/target", "target\n");
        plant(folder);
        AuditTrail trail(folder.trail);
        support::Status checked = trail.checkWritable();
        support::Status appended = trail.append(recordOf("start"));
        ASSERT_FALSE(checked) << what;
        ASSERT_FALSE(appended) << what;
        EXPECT_NE(appended.message().find(reason), std::string::npos)
            << what << ": " << appended.message();
        EXPECT_EQ(contentsOf(folder.path + "/target"), "target\n") << what;
        if (std::string(what) == "another account's file") {
            EXPECT_EQ(contentsOf(folder.file), "theirs\n") << what;
        }
    }
}

// A caller other than root is refused a change that cannot be recorded, before anything is
// called; root's goes ahead all the same.
TEST(AuditTrail, ChangeThatCannotBeRecordedIsRefusedToAnotherAccountAndNotToRoot) {
    TemporaryFolder folder;
    fs::create_directory(folder.trail);
    ::chown(folder.trail.c_str(), 1000, 1000);
    const std::string_view arguments[] = {"start"};
    Command command = *parseCommandLine(arguments);
    int calls = 0;
    Call call = [&calls](const std::string&, const OperationArgument&,
                         const CallGuard&) -> support::Result<Outcome> {
        ++calls;
        return Outcome{true, PlistValue(), ""};
    };
    const Caller other{1000, "operator", 1, Channel::ControlSocket, {}};
    EXPECT_EQ(conclude(command, PlistValue(), call, other, {}, AuditTrail(folder.trail)), 69);
    EXPECT_EQ(calls, 0) << "nothing was done for the other account";
    const Caller root{0, "root", 1, Channel::ControlSocket, {}};
    EXPECT_EQ(conclude(command, PlistValue(), call, root, {}, AuditTrail(folder.trail)), 0);
    EXPECT_GT(calls, 0) << "root's start went ahead";
    EXPECT_FALSE(fs::exists(folder.file)) << "and nothing was written to the account's folder";
}

}  // namespace
}  // namespace velnor::host
