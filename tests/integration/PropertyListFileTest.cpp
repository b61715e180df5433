// Property-list files against files that another implementation wrote and reads back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "HostLibTestSupport.h"
#include "PropertyListFile.h"

namespace velnor {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using testing::TemporaryFolder;
using ::testing::UnorderedElementsAre;

constexpr const char* kXml = "plistlib.FMT_XML";
constexpr const char* kBinary = "plistlib.FMT_BINARY";

// Has Python write value (a Python expression) to path in format.
void writeWithPython(const std::string& path, const std::string& value, const char* format) {
    ASSERT_EQ(
        testing::runPython(
            "plistlib.dump(" + value + ", open(sys.argv[1], 'wb'), fmt=" + format + ")", {path}),
        0)
        << "Python could not write " << value;
}

PlistDictionary everyKindThatPlistValueHolds() {
    PlistDictionary nested;
    nested.set("Inner", PlistValue("x"));
    PlistDictionary dictionary;
    dictionary.set("Label", PlistValue("org.example.job"));
    dictionary.set("Empty", PlistValue(""));
    dictionary.set("Zero", PlistValue::integer(0));
    dictionary.set("One", PlistValue::integer(1));
    dictionary.set("False", PlistValue::boolean(false));
    dictionary.set("True", PlistValue::boolean(true));
    dictionary.set("Negative", PlistValue::integer(-42));
    dictionary.set("Large", PlistValue::integer(std::int64_t{1} << 40));
    dictionary.set("Smallest", PlistValue::integer(std::numeric_limits<std::int64_t>::min()));
    dictionary.set("Largest", PlistValue::integer(std::numeric_limits<std::int64_t>::max()));
    dictionary.set("List", PlistValue(PlistArray{PlistValue("a"), PlistValue::integer(0),
                                                 PlistValue::boolean(false)}));
    dictionary.set("Nested", PlistValue(nested));
    dictionary.set("Markup", PlistValue("<a & \"b\">"));
    return dictionary;
}

constexpr const char* kEveryKindInPython =
    "{'Label': 'org.example.job', 'Empty': '', 'Zero': 0, 'One': 1, 'False': False,"
    " 'True': True, 'Negative': -42, 'Large': 2**40, 'Smallest': -2**63, 'Largest': 2**63 - 1,"
    " 'List': ['a', 0, False], 'Nested': {'Inner': 'x'}, 'Markup': '<a & \"b\">'}";

class ReadWrittenByPython : public ::testing::TestWithParam<const char*> {};

TEST_P(ReadWrittenByPython, KeepsEveryValueWithItsKind) {
    TemporaryFolder folder;
    const std::string path = folder / "job.plist";
    writeWithPython(path, kEveryKindInPython, GetParam());

    std::string error;
    auto dictionary = readPropertyListDictionary(path, &error);

    ASSERT_TRUE(dictionary.has_value()) << error;
    EXPECT_EQ(dictionary->find("Zero")->kind(), PlistValue::Kind::Integer)
        << "an integer 0 must not turn into false";
    EXPECT_EQ(dictionary->find("False")->kind(), PlistValue::Kind::Boolean)
        << "false must not turn into an integer";
    EXPECT_EQ(*dictionary, everyKindThatPlistValueHolds());
}

INSTANTIATE_TEST_SUITE_P(XmlAndBinary, ReadWrittenByPython, ::testing::Values(kXml, kBinary));

struct UnsupportedCase {
    const char* name;
    const char* pythonValue;
    const char* format;
    const char* expectedError;
};

class RefuseWhatPlistValueCannotHold : public ::testing::TestWithParam<UnsupportedCase> {};

TEST_P(RefuseWhatPlistValueCannotHold, NamesTheKindAndWhereItIs) {
    TemporaryFolder folder;
    const std::string path = folder / "job.plist";
    writeWithPython(path, GetParam().pythonValue, GetParam().format);

    std::string error;
    auto value = readPropertyListFile(path, &error);

    EXPECT_FALSE(value.has_value()) << "a value was dropped or changed without a word";
    EXPECT_THAT(error, HasSubstr(GetParam().expectedError));
    EXPECT_THAT(error, HasSubstr(path));
    EXPECT_THAT(error, Not(HasSubstr("\n")));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, RefuseWhatPlistValueCannotHold,
    ::testing::Values(UnsupportedCase{"RealAtTopLevelKey", "{'Ratio': 1.5}", kXml,
                                      "unsupported value of kind real under \"Ratio\""},
                      UnsupportedCase{
                          "DateInNestedDictionary",
                          "{'Outer': {'When': datetime.datetime(2021, 6, 1, 12, 34, 56)}}", kBinary,
                          "unsupported value of kind date under \"Outer\" / \"When\""},
                      UnsupportedCase{"DataInArray", "{'Blobs': ['a', b'\\x00\\x01']}", kXml,
                                      "unsupported value of kind data under \"Blobs\" / 1"},
                      UnsupportedCase{"Uid", "{'Reference': plistlib.UID(3)}", kBinary,
                                      "unsupported value of kind uid under \"Reference\""},
                      UnsupportedCase{"RealAsWholeFile", "2.5", kXml,
                                      "unsupported value of kind real at the top level"},
                      UnsupportedCase{"UnsignedAboveSignedRangeXml", "{'Huge': 2**64 - 1}", kXml,
                                      "unsupported integer 18446744073709551615"},
                      UnsupportedCase{"UnsignedAboveSignedRangeBinary", "{'Huge': 2**63}", kBinary,
                                      "unsupported integer 9223372036854775808"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(PropertyListFile, MalformedOrMissingFilesGiveNothingAndOneLineSayingWhy) {
    TemporaryFolder folder;
    const struct {
        const char* name;
        const char* contents;
    } cases[] = {
        {"empty", ""},
        {"truncated", "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>A</key>"},
        {"text", "this is not a property list"},
        {"brokenBinary", "bplist00\x01\x02garbage"},
    };
    for (const auto& malformed : cases) {
        const std::string path = folder / malformed.name;
        testing::writeText(path, malformed.contents);
        std::string error;
        EXPECT_FALSE(readPropertyListFile(path, &error).has_value()) << malformed.name;
        EXPECT_THAT(error, HasSubstr(path)) << malformed.name;
        EXPECT_THAT(error, HasSubstr("not a valid")) << malformed.name;
        EXPECT_FALSE(parsePropertyList(malformed.contents).has_value()) << malformed.name;
    }

    std::string error;
    EXPECT_FALSE(readPropertyListFile(folder / "missing.plist", &error).has_value());
    EXPECT_THAT(error, HasSubstr("No such file or directory"));
    EXPECT_FALSE(readPropertyListFile(folder.path(), &error).has_value())
        << "a folder is not a property-list file";
}

TEST(PropertyListFile, DictionaryReadRefusesAnotherTopLevel) {
    TemporaryFolder folder;
    const std::string path = folder / "list.plist";
    writeWithPython(path, "['a', 'b']", kXml);

    std::string error;
    EXPECT_FALSE(readPropertyListDictionary(path, &error).has_value());
    EXPECT_THAT(error, HasSubstr("the top level is array, not dictionary"));
    EXPECT_EQ(readPropertyListFile(path), PlistValue(PlistArray{PlistValue("a"), PlistValue("b")}));
}

class WriteAndReadBack : public ::testing::TestWithParam<bool> {
  protected:
    bool write(const std::string& path, const PlistValue& value) {
        return GetParam() ? writePropertyListAtomically(path, value)
                          : writePropertyListInPlace(path, value);
    }
};

TEST_P(WriteAndReadBack, IntegersAndBooleansStayWhatTheyWere) {
    TemporaryFolder folder;
    const std::string path = folder / "values.plist";
    const PlistValue written(everyKindThatPlistValueHolds());

    ASSERT_TRUE(write(path, written));

    EXPECT_EQ(readPropertyListFile(path), written);
    EXPECT_EQ(testing::runPython("d = plistlib.load(open(sys.argv[1], 'rb'))\n"
                                 "assert d == " +
                                     std::string(kEveryKindInPython) +
                                     "\n"
                                     "assert type(d['Zero']) is int and type(d['One']) is int\n"
                                     "assert d['False'] is False and d['True'] is True\n",
                                 {path}),
              0)
        << "Python reads something else from our XML:\n"
        << testing::fileText(path);
}

TEST_P(WriteAndReadBack, AbsentValueIsRefusedAndNothingIsWritten) {
    TemporaryFolder folder;
    const std::string path = folder / "absent.plist";

    EXPECT_FALSE(write(path, PlistValue(PlistArray{PlistValue("a"), PlistValue()})));
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_THROW(toXmlPropertyList(PlistValue()), std::invalid_argument);
}

INSTANTIATE_TEST_SUITE_P(AtomicallyAndInPlace, WriteAndReadBack, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Atomic" : "InPlace"; });

TEST(PropertyListFile, AtomicWriteReplacesTheFileKeepingModeAndOwner) {
    TemporaryFolder folder;
    const std::string path = folder / "job.plist";
    testing::writeText(path, "old");
    const auto owner = testing::nobody();
    ASSERT_EQ(::chown(path.c_str(), owner.uid, owner.gid), 0);
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    const ino_t oldInode = testing::statusOf(path).st_ino;

    ASSERT_TRUE(writePropertyListAtomically(path, PlistValue("new")));

    const auto status = testing::statusOf(path);
    EXPECT_NE(status.st_ino, oldInode) << "the file was written over instead of replaced";
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_EQ(status.st_uid, owner.uid);
    EXPECT_EQ(status.st_gid, owner.gid);
    EXPECT_EQ(readPropertyListFile(path), PlistValue("new"));
    EXPECT_THAT(testing::folderEntries(folder.path()), UnorderedElementsAre("job.plist"))
        << "a temporary file was left behind";
}

TEST(PropertyListFile, AtomicWriteThroughSymbolicLinkReplacesItsTarget) {
    TemporaryFolder folder;
    const std::string target = folder / "real.plist";
    const std::string link = folder / "link.plist";
    testing::writeText(target, "old");
    ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0);

    ASSERT_TRUE(writePropertyListAtomically(link, PlistValue("new")));

    EXPECT_TRUE(S_ISLNK(testing::statusOf(link).st_mode)) << "the link was replaced by a file";
    EXPECT_EQ(readPropertyListFile(target), PlistValue("new"));
}

TEST(PropertyListFile, InPlaceWriteKeepsTheFileItself) {
    TemporaryFolder folder;
    const std::string path = folder / "job.plist";
    testing::writeText(path, std::string(10000, 'x'));
    const ino_t oldInode = testing::statusOf(path).st_ino;

    ASSERT_TRUE(writePropertyListInPlace(path, PlistValue("short")));

    EXPECT_EQ(testing::statusOf(path).st_ino, oldInode);
    EXPECT_EQ(readPropertyListFile(path), PlistValue("short")) << "the old tail was not cut off";
}

TEST(PropertyListFile, FailedAtomicWriteLeavesTheOldFileWhole) {
    TemporaryFolder folder;
    ASSERT_EQ(::chmod(folder.path().c_str(), 0755), 0);
    const std::string jobs = folder / "jobs";
    ASSERT_EQ(::mkdir(jobs.c_str(), 0555), 0);
    const std::string path = jobs + "/job.plist";
    const std::string old = toXmlPropertyList(PlistValue("old"));
    testing::writeText(path, old);
    ASSERT_EQ(::chmod(path.c_str(), 0666), 0);

    EXPECT_TRUE(testing::runAs(testing::nobody(), [&] {
        return !writePropertyListAtomically(path, PlistValue("new"));
    })) << "the write succeeded in a folder that the writer may not change";

    EXPECT_EQ(testing::fileText(path), old);
    EXPECT_THAT(testing::folderEntries(jobs), UnorderedElementsAre("job.plist"));

    const std::string underAFile = path + "/inner.plist";
    EXPECT_FALSE(writePropertyListAtomically(underAFile, PlistValue("new")));
    EXPECT_FALSE(writePropertyListInPlace(underAFile, PlistValue("new")));
    EXPECT_EQ(testing::fileText(path), old);
}

}  // namespace
}  // namespace velnor
