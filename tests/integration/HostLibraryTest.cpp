// The host support library against this machine: what only its own files, processes and
// accounts can show.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "LaunchDaemon.h"
#include "LaunchdSystemd.h"
#include "ProcessTableReader.h"
#include "PropertyListFile.h"

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

// The library's own line behind the host, which refuses such requests first: a rewrite of the
// launch arguments that cannot be written exactly leaves the job file as it was.
TEST(LaunchDaemonArguments, ArgumentsThatCannotBeWrittenExactlyLeaveTheJobFileWhole) {
    TemporaryFolder folder;
    const std::string path = folder / "job.plist";
    const PlistDictionary job{{"Label", "org.example.job"},
                              {"ProgramArguments", PlistArray{"/old"}}};
    ASSERT_TRUE(writePropertyListAtomically(path, PlistValue(job)));
    const std::string old = fileText(path);
    for (const std::string& argument : {std::string("a\0b", 3), std::string("a\x01"),
                                        std::string("a\r"), std::string("\xef\xbf\xbe")}) {
        EXPECT_FALSE(SetLaunchDaemonServiceConfigArgs(path, {"/new", argument})) << argument;
        EXPECT_EQ(fileText(path), old) << argument;
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path), {}), 1)
        << "a temporary stays";
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
