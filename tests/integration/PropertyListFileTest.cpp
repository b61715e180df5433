// Property-list files against files that another implementation writes and reads back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "HostLibTestSupport.h"
#include "PropertyListFile.h"

namespace velnor {
namespace {

PlistDictionary everyKindThatPlistValueHolds() {
    return {
        {"Label", "org.example.job"},
        {"Empty", ""},
        {"Zero", PlistValue::integer(0)},
        {"One", PlistValue::integer(1)},
        {"False", PlistValue::boolean(false)},
        {"True", PlistValue::boolean(true)},
        {"Negative", PlistValue::integer(-42)},
        {"Large", PlistValue::integer(std::int64_t{1} << 40)},
        {"Smallest", PlistValue::integer(std::numeric_limits<std::int64_t>::min())},
        {"Largest", PlistValue::integer(std::numeric_limits<std::int64_t>::max())},
        {"List", PlistArray{"a", PlistValue::integer(0), PlistValue::boolean(false)}},
        {"Nested", PlistDictionary{{"Inner", "x"}}},
        {"Markup", "<a & \"b\">"},
        {"Tenth", PlistValue::real(0.1)},
        {"NegativeZero", PlistValue::real(-0.0)},
        {"Date", PlistValue::date(736672089)},
        {"Bytes", PlistValue::data(std::string("\0\x01\xff", 3))},
    };
}

const std::string kEveryKindInPython =
    "{'Label': 'org.example.job', 'Empty': '', 'Zero': 0, 'One': 1, 'False': False,"
    " 'True': True, 'Negative': -42, 'Large': 2**40, 'Smallest': -2**63, 'Largest': 2**63 - 1,"
    " 'List': ['a', 0, False], 'Nested': {'Inner': 'x'}, 'Markup': '<a & \"b\">',"
    " 'Tenth': 0.1, 'NegativeZero': -0.0, 'Date': datetime.datetime(2024, 5, 6, 7, 8, 9),"
    " 'Bytes': b'\\x00\\x01\\xff'}";

// Python writes a file in the format given; we read it, write it back over a longer old file, and
// both sides read our file: every value must keep its kind and its exact value each way.
class RoundTripWithPython : public ::testing::TestWithParam<const char*> {};

TEST_P(RoundTripWithPython, EveryValueStaysWhatItWas) {
    const char* format = GetParam();
    testing::TemporaryFolder folder;
    const std::string theirs = folder / "theirs.plist";
    const std::string ours = folder / "ours.plist";
    ASSERT_EQ(testing::runPython("plistlib.dump(" + kEveryKindInPython +
                                     ", open(sys.argv[1], 'wb'), fmt=plistlib." + format + ")",
                                 {theirs}),
              0);

    std::string error;
    auto dictionary = readPropertyListDictionary(theirs, &error);
    ASSERT_TRUE(dictionary.has_value()) << error;
    EXPECT_EQ(dictionary->find("Zero")->kind(), PlistValue::Kind::Integer)
        << "an integer 0 must not turn into false";
    EXPECT_EQ(dictionary->find("False")->kind(), PlistValue::Kind::Boolean)
        << "false must not turn into an integer";
    EXPECT_EQ(*dictionary, everyKindThatPlistValueHolds());

    const PlistValue written(everyKindThatPlistValueHolds());
    testing::writeText(ours, std::string(10000, 'x'));
    ASSERT_TRUE(writePropertyListAtomically(ours, written));
    EXPECT_EQ(readPropertyListFile(ours), written)
        << "our file reads back otherwise; an old tail left over?";
    EXPECT_THAT(testing::fileText(ours), ::testing::HasSubstr("<real>0.1</real>"))
        << "a real is written in its shortest exact form";
    EXPECT_EQ(testing::runPython("d = plistlib.load(open(sys.argv[1], 'rb'))\n"
                                 "assert d == " +
                                     kEveryKindInPython +
                                     "\n"
                                     "assert type(d['Zero']) is int and type(d['One']) is int\n"
                                     "assert d['False'] is False and d['True'] is True\n"
                                     "assert math.copysign(1, d['NegativeZero']) == -1\n",
                                 {ours}),
              0)
        << "Python reads something else from our XML:\n"
        << testing::fileText(ours);
}

INSTANTIATE_TEST_SUITE_P(XmlAndBinary, RoundTripWithPython,
                         ::testing::Values("FMT_XML", "FMT_BINARY"));

}  // namespace
}  // namespace velnor
