// The launch arguments of job files, against job files that Python's plistlib writes and reads.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "HostLibTestSupport.h"
#include "LaunchDaemon.h"
#include "PropertyListFile.h"

namespace velnor {
namespace {

using ::testing::ElementsAre;
using testing::TemporaryFolder;
using ::testing::UnorderedElementsAre;

// A job file with a value of every kind that a job file may hold, PlistValue's or not.
constexpr const char* kJobInPython =
    "{'Label': 'org.example.job', 'Disabled': False, 'Nice': 0, 'Ratio': 1.5,"
    " 'Installed': datetime.datetime(2021, 6, 1, 12, 34, 56), 'Blob': b'\\x00\\xff',"
    " 'ProgramArguments': ['/usr/bin/old', '-x'],"
    " 'EnvironmentVariables': {'LANG': 'C', 'Depth': -3}, 'Sockets': [{'Port': 5432}]}";

void writeJobWithPython(const std::string& path, const char* format) {
    ASSERT_EQ(testing::runPython(
                  std::string("job = ") + kJobInPython +
                      "\nplistlib.dump(job, open(sys.argv[1], 'wb'), sort_keys=False, fmt=" +
                      format + ")",
                  {path}),
              0);
}

class JobFileFormat : public ::testing::TestWithParam<const char*> {
  protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "giving a job file to another account needs root";
        }
    }
};

TEST_P(JobFileFormat, GetReadsAndSetReplacesOnlyTheArgumentsKeepingModeAndOwner) {
    TemporaryFolder folder;
    const std::string path = folder / "job.plist";
    writeJobWithPython(path, GetParam());
    EXPECT_THAT(GetLaunchDaemonServiceConfigArgs(path),
                ::testing::Optional(ElementsAre("/usr/bin/old", "-x")));
    const auto owner = testing::nobody();
    ASSERT_EQ(::chown(path.c_str(), owner.uid, owner.gid), 0);
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    const ino_t oldInode = testing::statusOf(path).st_ino;

    ASSERT_TRUE(SetLaunchDaemonServiceConfigArgs(path, {"/usr/bin/new", "-D", "/var/data"}));

    EXPECT_EQ(
        testing::runPython(std::string("job = ") + kJobInPython +
                               "\njob['ProgramArguments'] = ['/usr/bin/new', '-D', "
                               "'/var/data']\n"
                               "now = plistlib.load(open(sys.argv[1], 'rb'))\n"
                               "assert now == job, now\n"
                               "assert list(now) == list(job), list(now)\n"
                               "assert now['Disabled'] is False and type(now['Nice']) is int\n"
                               "assert open(sys.argv[1], 'rb').read().startswith(b'<?xml')\n",
                           {path}),
        0)
        << "the rewritten job file lost or changed something:\n"
        << testing::fileText(path);
    const auto status = testing::statusOf(path);
    EXPECT_NE(status.st_ino, oldInode) << "the job file was written over instead of replaced";
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_EQ(status.st_uid, owner.uid);
    EXPECT_EQ(status.st_gid, owner.gid);
    EXPECT_THAT(testing::folderEntries(folder.path()), UnorderedElementsAre("job.plist"));
}

INSTANTIATE_TEST_SUITE_P(XmlAndBinary, JobFileFormat,
                         ::testing::Values("plistlib.FMT_XML", "plistlib.FMT_BINARY"));

TEST(LaunchDaemonArguments, SetCreatesAMissingJobFileReadableByEveryone) {
    TemporaryFolder folder;
    const std::string path = folder / "job.plist";
    const mode_t oldUmask = ::umask(077);

    const bool written = SetLaunchDaemonServiceConfigArgs(path, {"/usr/bin/postgres", "-D", "x"});
    ::umask(oldUmask);

    ASSERT_TRUE(written);
    const PlistDictionary expected{
        {"ProgramArguments", PlistArray{"/usr/bin/postgres", "-D", "x"}}};
    EXPECT_EQ(readPropertyListDictionary(path).value(), expected);
    EXPECT_EQ(testing::statusOf(path).st_mode & 07777, 0644u)
        << "a job file must be readable by everyone whatever the writer's umask";
}

TEST(LaunchDaemonArguments, SetLeavesTheOldFileWholeWhenItCannotWrite) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "writing as another account needs root";
    }
    TemporaryFolder folder;
    ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
    const std::string jobs = folder / "LaunchDaemons";
    ASSERT_EQ(::mkdir(jobs.c_str(), 0555), 0);
    const std::string path = jobs + "/job.plist";
    writeJobWithPython(path, "plistlib.FMT_XML");
    ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
    const std::string old = testing::fileText(path);

    EXPECT_TRUE(testing::runAs(testing::nobody(), [&] {
        return !SetLaunchDaemonServiceConfigArgs(path, {"/new"});
    })) << "the job file was rewritten in a folder that the writer may not change";
    EXPECT_EQ(testing::fileText(path), old);
    EXPECT_THAT(testing::folderEntries(jobs), UnorderedElementsAre("job.plist"));
}

// The host refuses such requests first; this is the library's own line behind it.
TEST(LaunchDaemonArguments, SetRefusesArgumentsThatXmlCannotCarryExactly) {
    TemporaryFolder folder;
    const std::string path = folder / "job.plist";
    writeJobWithPython(path, "plistlib.FMT_XML");
    const std::string old = testing::fileText(path);
    for (const std::string& argument : {std::string("a\0b", 3), std::string("a\x01"),
                                        std::string("a\r"), std::string("\xef\xbf\xbe")}) {
        EXPECT_FALSE(SetLaunchDaemonServiceConfigArgs(path, {"/new", argument}));
        EXPECT_EQ(testing::fileText(path), old) << "the job file is left whole";
    }
}

}  // namespace
}  // namespace velnor
