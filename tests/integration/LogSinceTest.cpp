// What a call shows of the server's log: what was appended to the real file while it ran.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "Explanations.h"

namespace velnor::host {
namespace {

struct TemporaryFolder {
    std::string path = [] {
        std::string pattern = "/tmp/velnor-log-XXXXXX";
        return ::mkdtemp(pattern.data()) ? pattern
                                         : throw std::runtime_error("no temporary folder");
    }();
    ~TemporaryFolder() { std::filesystem::remove_all(path); }
};

void writeFile(const std::string& path, const std::string& text, std::ios::openmode mode) {
    std::ofstream(path, std::ios::binary | mode) << text;
}

TEST(LogSince, ShowsWhatWasAppendedAfterTheMarkCutToWholeLines) {
    struct Case {
        const char* what;
        const char* before;  // nullptr: no log yet when marked
        const char* after;   // what the file holds when read
        std::size_t limit;
        const char* shown;
    };
    const Case cases[] = {
        {"appended lines", "old\n", "old\nnew 1\nnew 2\n", 100, "new 1\nnew 2\n"},
        {"nothing appended", "old\n", "old\n", 100, ""},
        {"created after the mark", nullptr, "first\n", 100, "first\n"},
        {"a line still being written", "old\n", "old\nhalf", 100, "half"},
        {"rotated: smaller than at the mark", "a long old line\n", "new\n", 100, "new\n"},
        {"over the limit: the cut line goes", "", "aaaa\nbbbb\ncccc\n", 12, "bbbb\ncccc\n"},
        {"over the limit at a line's start", "", "aaaa\nbbbb\ncccc\n", 10, "bbbb\ncccc\n"},
        {"over the limit at the last line's start", "", "aaaa\nbbbb\n", 5, "bbbb\n"},
        {"one line longer than the limit", "", "abcdefgh", 3, "fgh"},
        {"a limit of nothing", "", "aaaa\n", 0, ""},
    };
    for (const Case& row : cases) {
        TemporaryFolder folder;
        const std::string log = folder.path + "/postgresql.log";
        if (row.before) {
            writeFile(log, row.before, std::ios::trunc);
        }
        support::Result<LogMark> mark = markLog(log);
        ASSERT_TRUE(mark) << row.what << ": " << mark.message();
        writeFile(log, row.after, std::ios::trunc);
        support::Result<std::string> shown = appendedSince(*mark, row.limit);
        ASSERT_TRUE(shown) << row.what << ": " << shown.message();
        EXPECT_EQ(*shown, row.shown) << row.what;
    }
}

TEST(LogSince, RefusesWhatIsNotARegularFile) {
    TemporaryFolder folder;
    support::Result<LogMark> mark = markLog(folder.path);
    ASSERT_FALSE(mark);
    EXPECT_NE(mark.message().find("not a regular file"), std::string::npos) << mark.message();
    ASSERT_EQ(::mkfifo((folder.path + "/fifo").c_str(), 0600), 0);
    EXPECT_FALSE(markLog(folder.path + "/fifo")) << "a pipe would never end a read";
}

}  // namespace
}  // namespace velnor::host
