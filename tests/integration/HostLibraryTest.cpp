// The host support library against this machine: what only its own files, processes and
// accounts can show.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>

#include "LaunchDaemon.h"
#include "LaunchdSystemd.h"
#include "PlistNode.h"
#include "PlistText.h"
#include "ProcessTableReader.h"
#include "PropertyListFile.h"
#include "SafePath.h"
#include "WholeFile.h"

namespace velnor {
namespace {

// A throwaway folder, removed with everything in it when the test ends.
struct TemporaryFolder {
    std::string path = [] {
        std::string pattern = "/tmp/velnor-hostlib-XXXXXX";
        return ::mkdtemp(pattern.data()) ? pattern
                                         : throw std::runtime_error("no temporary folder");
    }();
    ~TemporaryFolder() { std::filesystem::remove_all(path); }
    std::string operator/(const std::string& name) const { return path + "/" + name; }
};

std::string fileText(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

void writeText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::size_t entriesIn(const std::string& folder) {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

std::string bytesIn(PlistFormat format, const PlistDictionary& job) {
    return format == PlistFormat::Binary ? toBinaryPropertyList(PlistValue(job))
                                         : toXmlPropertyList(PlistValue(job));
}

// Each format carries what a reader gets back unchanged: XML no control character but tab and
// line feed, and no U+FFFE or U+FFFF; neither a zero byte or bytes that are not UTF-8.
TEST(PlistText, EachFormatCarriesOnlyWhatReadsBackUnchanged) {
    constexpr std::size_t none = std::string_view::npos;
    struct Row {
        std::string text;
        std::size_t xml, binary;
        const char* name;
    };
    const Row rows[] = {
        {"caf\xc3\xa9 \xf0\x9f\x98\x80\t\n\x7f", none, none, ""},
        {"bell\x07", 4, none, "U+0007"},
        {"a\r", 1, none, "U+000D"},
        {"\xef\xbf\xbe", 0, none, "U+FFFE"},
        {std::string("a\0b", 3), 1, 1, "U+0000"},
        {"x\xff", 1, 1, "the byte 0xFF"},
        {"\xed\xa0\x80", 0, 0, "the byte 0xED"},      // a surrogate
        {"\xc0\x80", 0, 0, "the byte 0xC0"},          // an overlong zero
        {"\xf4\x90\x80\x80", 0, 0, "the byte 0xF4"},  // above U+10FFFF
        {"\xe2\x82", 0, 0, "the byte 0xE2"},          // cut short
    };
    for (const Row& row : rows) {
        EXPECT_EQ(uncarriableCharacterAt(row.text, PlistFormat::Xml), row.xml) << row.name;
        EXPECT_EQ(uncarriableCharacterAt(row.text, PlistFormat::Binary), row.binary) << row.name;
        if (row.xml != none) {
            EXPECT_EQ(characterNameAt(row.text, row.xml), row.name);
        }
    }
}

// Binary lists carry integers up to the largest unsigned 64-bit one; plug-ins take signed ones.
TEST(PlistValues, IntegersRunFromTheSmallestSignedToTheLargestUnsigned) {
    const PlistValue largest = PlistValue::unsignedInteger(UINT64_MAX);
    EXPECT_EQ(PlistValue::unsignedInteger(5), PlistValue::integer(5));
    EXPECT_NE(largest, PlistValue::integer(-1)) << "the same bits, another number";
    EXPECT_EQ(largest.asInteger(), std::nullopt);
    EXPECT_EQ(largest.asUnsignedInteger(), UINT64_MAX);
    EXPECT_EQ(PlistValue::integer(-1).asUnsignedInteger(), std::nullopt);
    EXPECT_EQ(findIntegerAboveSigned(PlistDictionary{
                  {"a", PlistArray{PlistValue::integer(INT64_MAX),
                                   PlistValue::unsignedInteger(std::uint64_t{1} << 63)}}}),
              "unsupported integer 9223372036854775808, above the largest signed 64-bit "
              "integer, under \"a\" / 1");
}

// A job file holding every kind of value, as the format can hold it: XML has whole seconds, no
// control characters, and no uid (libplist reads its XML form back as a dictionary).
PlistDictionary jobOfEveryKind(PlistFormat format) {
    PlistDictionary job{
        {"Label", "org.example.job"},
        {"ProgramArguments", PlistArray{"/old", "-c", "a=b"}},
        {"Integers", PlistArray{PlistValue::unsignedInteger(UINT64_MAX),
                                PlistValue::unsignedInteger(std::uint64_t{1} << 63),
                                PlistValue::integer(INT64_MIN), PlistValue::integer(-1),
                                PlistValue::integer(0)}},
        {"Reals",
         PlistArray{PlistValue::real(0.1), PlistValue::real(-0.0), PlistValue::real(1e300)}},
        {"Built", PlistValue::date(format == PlistFormat::Binary ? 737000000.25 : 737000000)},
        {"Blob", PlistValue::data(std::string("\0\x01\xff", 3))},
        {"Nested", PlistDictionary{{"on", PlistValue::boolean(true)},
                                   {"caf\xc3\xa9 \xf0\x9f\x98\x80", "\xe2\x82\xac"}}},
    };
    if (format == PlistFormat::Binary) {
        job.set("Reference", PlistValue::uid(7));
        job.set("Comment", "bell\x07, a carriage return\r and \xef\xbf\xbf");
    }
    return job;
}

// Both writers of a job file, the launch arguments' and the whole file's, keep its format and
// every value that they do not change, exactly.
TEST(JobFiles, RewritesKeepTheFormatAndEveryOtherValue) {
    TemporaryFolder folder;
    const std::string path = folder / "job.plist";
    for (PlistFormat format : {PlistFormat::Binary, PlistFormat::Xml}) {
        for (bool wholeFile : {false, true}) {
            SCOPED_TRACE(std::string(formatName(format)) +
                         (wholeFile ? ", written whole" : ", its arguments replaced"));
            PlistDictionary job = jobOfEveryKind(format);
            writeText(path, bytesIn(format, job));
            const LaunchArguments arguments{
                "/new", format == PlistFormat::Binary ? "a\x01\r" : "caf\xc3\xa9"};
            job.set("ProgramArguments", PlistArray(arguments.begin(), arguments.end()));
            if (wholeFile) {
                ASSERT_TRUE(writePropertyListAtomically(path, PlistValue(job)));
            } else {
                ASSERT_TRUE(SetLaunchDaemonServiceConfigArgs(path, arguments));
            }
            EXPECT_EQ(formatOfPlistBytes(fileText(path)), format);
            auto written = readPropertyListDictionary(path);
            ASSERT_TRUE(written) << written.message();
            EXPECT_TRUE(*written == job);
            EXPECT_EQ(GetLaunchDaemonServiceConfigArgs(path), arguments);
        }
    }
}

// A rewrite that could not leave a file that every reader reads back exactly, or that would
// replace arguments it could not read, leaves the job file as it was, and no temporary file.
TEST(JobFiles, RewritesThatWouldLoseSomethingLeaveTheFileAsItWas) {
    const std::string xmlOld =
        bytesIn(PlistFormat::Xml, {{"ProgramArguments", PlistArray{"/old"}}});
    const std::string binaryOld =
        bytesIn(PlistFormat::Binary, {{"ProgramArguments", PlistArray{"/old"}}});
    struct Row {
        const char* what;
        std::string file;
        LaunchArguments arguments;
    };
    const Row rows[] = {
        {"an XML file holding U+0007",
         "<plist><dict><key>Comment</key><string>bell&#7;here</string></dict></plist>",
         {"/new"}},
        {"an XML file with a carriage return in a key",
         "<plist><dict><key>a\rb</key><string>x</string></dict></plist>",
         {"/new"}},
        {"arguments holding an integer",
         bytesIn(PlistFormat::Xml,
                 {{"ProgramArguments", PlistArray{"/bin/postgres", PlistValue::integer(5)}}}),
         {"-c", "A=1"}},
        {"arguments that are one string",
         bytesIn(PlistFormat::Binary, {{"ProgramArguments", "/bin/postgres -D /d"}}),
         {"-c", "A=1"}},
        {"a file that is no property list", "ProgramArguments = /bin/postgres", {"/new"}},
        {"XML, an argument holding U+0001", xmlOld, {"/new", "a\x01"}},
        {"XML, an argument holding a carriage return", xmlOld, {"/new", "a\r"}},
        {"XML, an argument holding U+FFFE", xmlOld, {"/new", "\xef\xbf\xbe"}},
        {"XML, an argument holding a zero byte", xmlOld, {"/new", std::string("a\0b", 3)}},
        {"binary, an argument holding a zero byte", binaryOld, {"/new", std::string("a\0b", 3)}},
        {"binary, an argument that is not UTF-8", binaryOld, {"/new", "\xff"}},
    };
    for (const Row& row : rows) {
        TemporaryFolder folder;
        const std::string path = folder / "job.plist";
        writeText(path, row.file);
        EXPECT_FALSE(SetLaunchDaemonServiceConfigArgs(path, row.arguments)) << row.what;
        EXPECT_EQ(fileText(path), row.file) << row.what;
        EXPECT_EQ(entriesIn(folder.path), 1u) << row.what << ": a temporary stays";
    }
}

// Arguments that are there but cannot be read are no arguments to the reader, as a missing
// file or key is; a job file that can be read whole gives its arguments whatever else it holds.
TEST(JobFiles, ArgumentsAreReadOnlyFromAnArrayOfStrings) {
    TemporaryFolder folder;
    const std::string path = folder / "job.plist";
    EXPECT_EQ(GetLaunchDaemonServiceConfigArgs(path), std::nullopt) << "no file";
    const std::pair<PlistDictionary, std::optional<LaunchArguments>> rows[] = {
        {{{"Label", "x"}}, std::nullopt},
        {{{"ProgramArguments", PlistArray{"/bin/x", PlistValue::integer(5)}}}, std::nullopt},
        {{{"ProgramArguments", PlistArray{"/bin/x", PlistArray{"-D"}}}}, std::nullopt},
        {{{"ProgramArguments", PlistArray{}}}, LaunchArguments{}},
        {{{"ProgramArguments", PlistArray{"/bin/x", "-D", "/d"}},
          {"Largest", PlistValue::unsignedInteger(UINT64_MAX)}},
         LaunchArguments{"/bin/x", "-D", "/d"}},
    };
    for (const auto& [job, arguments] : rows) {
        writeText(path, bytesIn(PlistFormat::Binary, job));
        EXPECT_EQ(GetLaunchDaemonServiceConfigArgs(path), arguments);
    }
}

// A job file reached through a link is rewritten where the link leads, and the link stays; a
// link in a folder that another account may write is never followed, to read or to write.
TEST(JobFiles, LinksAreFollowedOnlyWhereRootAlonePutThem) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can give a folder to another account";
    }
    TemporaryFolder folder;  // root's alone
    const std::string target = folder / "real.plist";
    writeText(target, bytesIn(PlistFormat::Xml, {{"ProgramArguments", PlistArray{"/old"}}}));
    ASSERT_EQ(::symlink(target.c_str(), (folder / "job.plist").c_str()), 0);
    ASSERT_TRUE(SetLaunchDaemonServiceConfigArgs(folder / "job.plist", {"/new"}));
    EXPECT_TRUE(std::filesystem::is_symlink(folder / "job.plist")) << "the link stays";
    EXPECT_EQ(GetLaunchDaemonServiceConfigArgs(target), LaunchArguments{"/new"});

    const std::string theirs = folder / "theirs";
    ASSERT_EQ(::mkdir(theirs.c_str(), 0755), 0);
    ASSERT_EQ(::chown(theirs.c_str(), 65534, 65534), 0);
    const std::string planted = theirs + "/job.plist";
    ASSERT_EQ(::symlink(target.c_str(), planted.c_str()), 0);
    const std::string before = fileText(target);
    EXPECT_EQ(GetLaunchDaemonServiceConfigArgs(planted), std::nullopt);
    EXPECT_FALSE(SetLaunchDaemonServiceConfigArgs(planted, {"/other"}));
    EXPECT_FALSE(writePropertyListAtomically(planted, PlistValue(PlistDictionary{{"a", "b"}})));
    EXPECT_FALSE(readPropertyListDictionary(planted));
    EXPECT_EQ(fileText(target), before);
    EXPECT_TRUE(std::filesystem::is_symlink(planted));
}

// A folder is told present only when it is reached without a link that another account could
// have put there: the console and the choice of job backend never report what a planted link
// points at.
TEST(Folders, AreSeenOnlyWhereNoUnsafeLinkLeadsToThem) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can give a folder to another account";
    }
    TemporaryFolder folder;  // root's alone
    const std::string theirs = folder / "theirs";
    ASSERT_EQ(::mkdir(theirs.c_str(), 0755), 0);
    ASSERT_EQ(::chown(theirs.c_str(), 65534, 65534), 0);
    writeText(folder / "file", "");
    ASSERT_EQ(::symlink(folder.path.c_str(), (folder / "link").c_str()), 0);
    ASSERT_EQ(::symlink(folder.path.c_str(), (theirs + "/planted").c_str()), 0);
    const std::pair<std::string, bool> cases[] = {
        {folder.path, true},
        {theirs, true},
        {folder / "link", true},
        {theirs + "/planted", false},
        {folder / "file", false},
        {folder / "missing", false},
        {folder / "file/below", false},
        {"", false},
    };
    for (const auto& [path, seen] : cases) {
        EXPECT_EQ(support::isFolder(path), seen) << path;
    }
}

// Both whole-file writers put their new file in place as one ReplacementFile: only the new file
// is left, what an interrupted write left beside it is removed, and a file hard-linked to the
// old one keeps its contents.
TEST(Replacements, BothWritersLeaveOnlyTheNewFile) {
    using Writer = std::function<bool(const std::string&)>;
    const Writer wholeFile = [](const std::string& path) {
        return static_cast<bool>(replaceWholeFileAtomically(path, "new", 0644));
    };
    const Writer safePath = [](const std::string& path) {
        return static_cast<bool>(support::replaceFile(
            path, "new", support::Attributes{0644, ::geteuid(), ::getegid(), "the runner's"}));
    };
    const struct {
        const char* writer;
        const Writer& write;
        std::string before;
    } rows[] = {
        {"whole file", wholeFile, "nothing"},    {"whole file", wholeFile, "a file"},
        {"whole file", wholeFile, "a leftover"}, {"whole file", wholeFile, "a hard link"},
        {"safe path", safePath, "nothing"},      {"safe path", safePath, "a file"},
        {"safe path", safePath, "a leftover"},   {"safe path", safePath, "a hard link"},
    };
    for (const auto& row : rows) {
        TemporaryFolder folder;
        const std::string path = folder / "job.plist";
        if (row.before == "a file") {
            writeText(path, "old");
        } else if (row.before == "a leftover") {
            writeText(folder / ".job.plist.0a1b2c", "half");
        } else if (row.before == "a hard link") {
            writeText(folder / "other", "keep");
            ASSERT_EQ(::link((folder / "other").c_str(), path.c_str()), 0);
        }
        ASSERT_TRUE(row.write(path)) << row.writer << " over " << row.before;
        EXPECT_EQ(fileText(path), "new") << row.writer << " over " << row.before;
        EXPECT_EQ(entriesIn(folder.path), row.before == "a hard link" ? 2u : 1u)
            << row.writer << " over " << row.before;
        if (row.before == "a hard link") {
            EXPECT_EQ(fileText(folder / "other"), "keep") << row.writer;
        }
    }
}

// The e2e job's label needs no escape; other labels are escaped as systemd escapes unit names,
// one way back for each, and one that makes too long a name has no unit.
TEST(SystemdJobs, UnitNamesAreTheLabelsEscaped) {
    const std::string longest(255 - std::string("velnor-launchd-.service").size(), 'a');
    const std::pair<std::string, std::optional<std::string>> rows[] = {
        {"org.postgresql.postgres", "velnor-launchd-org.postgresql.postgres.service"},
        {"a-b c:d_e", "velnor-launchd-a\\x2db\\x20c:d_e.service"},
        {".hidden", "velnor-launchd-\\x2ehidden.service"},
        {"caf\xc3\xa9\\", "velnor-launchd-caf\\xc3\\xa9\\x5c.service"},
        {longest, "velnor-launchd-" + longest + ".service"},
        {longest + "a", std::nullopt},
        {"", std::nullopt},
        {"a/b", std::nullopt},
    };
    for (const auto& [label, unit] : rows) {
        EXPECT_EQ(unitNameOfLabel(label), unit) << label;
    }
}

// The process table read from a crafted /proc: the real one is read whenever a stop looks for
// idle clients.
TEST(ProcessTable, TakesOnlyProcessFoldersTheirEffectiveUidAndSkipsProcessesThatEndedMeanwhile) {
    TemporaryFolder proc;
    for (const char* name : {"42", "77", "0x10"}) {
        std::filesystem::create_directory(proc / name);
    }
    writeText(proc / "42/status", "Name:\tpostgres\nUid:\t1000\t216\t1000\t1000\n");
    writeText(proc / "0x10/status", "Uid:\t1\t1\t1\t1\n");
    std::filesystem::create_directory_symlink(proc / "42", proc / "self");
    // 77 has no status file: it ended between the listing and the read.

    for (int call = 1; call <= 2; ++call) {  // the second reuses the tables of the first
        kinfo_proc* table = nullptr;
        std::size_t count = 0;
        ASSERT_EQ(getProcessTableFrom(proc.path, &table, &count), 0);
        ASSERT_EQ(count, 1u) << "call " << call;
        EXPECT_EQ(table[0].kp_proc.p_pid, 42);
        EXPECT_EQ(table[0].kp_eproc.e_ucred.cr_uid, 216u) << "the effective uid, not the real one";
    }
}

}  // namespace
}  // namespace velnor
