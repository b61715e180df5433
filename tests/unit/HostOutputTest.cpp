// What the host prints for a response: JSON and the human form.
#include <gtest/gtest.h>

#include <limits>

#include "Output.h"

namespace velnor::host {
namespace {

// Dictionaries, kinds and plain strings in JSON are shown through the host run for real.
TEST(HostJson, EscapesAndReplacesBytesThatAreNotUtf8SoTheDocumentStaysValid) {
    const std::pair<std::string, std::string> cases[] = {
        {"quote\" back\\ slash/", R"("quote\" back\\ slash/")"},
        {std::string("\b\f\n\r\t\x01\x1f\x7f", 8), "\"\\b\\f\\n\\r\\t\\u0001\\u001f\x7f\""},
        {std::string("nul\0byte", 8), R"("nul\u0000byte")"},
        {"Größe € 𝄞", "\"Größe € 𝄞\""},
        {std::string("a\xff") + "b", R"("a\ufffdb")"},          // never valid
        {"\x80", R"("\ufffd")"},                                // stray continuation byte
        {"\xc3", R"("\ufffd")"},                                // truncated at the end
        {"\xc3(", R"("\ufffd(")"},                              // truncated by ASCII
        {"\xe0\x80\xaf", R"("\ufffd\ufffd\ufffd")"},            // overlong in three bytes
        {"\xed\xa0\x80", R"("\ufffd\ufffd\ufffd")"},            // a UTF-16 surrogate
        {"\xf4\x90\x80\x80", R"("\ufffd\ufffd\ufffd\ufffd")"},  // beyond U+10FFFF
        {"\xf4\x8f\xbf\xbf", "\"\xf4\x8f\xbf\xbf\""},           // U+10FFFF itself is fine
    };
    for (const auto& [bytes, json] : cases) {
        EXPECT_EQ(toJson(bytes), json) << "for the bytes of " << json;
    }
    EXPECT_EQ(toJson(PlistDictionary{{"a\"b\n", PlistValue::integer(1)}}),
              "{\n  \"a\\\"b\\n\": 1\n}");
    EXPECT_EQ(toJson(PlistArray{PlistValue::integer(INT64_MIN), PlistArray{}, PlistDictionary{}}),
              "[\n  -9223372036854775808,\n  [],\n  {}\n]");
    EXPECT_EQ(formatResponse(PlistValue(), OutputForm::Json), "null\n");
}

TEST(HostJson, RealsDatesDataAndUidsEachHaveTheirForm) {
    const std::pair<PlistValue, std::string> cases[] = {
        {PlistValue::real(1), "1.0"},  // never mistaken for an integer
        {PlistValue::real(0.1), "0.1"},
        {PlistValue::real(-0.0), "-0.0"},
        {PlistValue::real(std::numeric_limits<double>::infinity()), R"("+infinity")"},
        {PlistValue::date(736672089.25), R"("2024-05-06T07:08:09.25Z")"},
        {PlistValue::date(-3187296000), R"("1900-01-01T00:00:00Z")"},  // before 1970 too
        {PlistValue::data(std::string("\0\x01\xff", 3)), R"("AAH/")"},
        {PlistValue::uid(7), R"({"CF$UID": 7})"},
    };
    for (const auto& [value, json] : cases) {
        EXPECT_EQ(toJson(value), json);
    }
}

TEST(HostHumanForm, OneLinePerEntryNestedValuesIndented) {
    const PlistDictionary response{
        {"list", PlistArray{"a", PlistValue::integer(2), PlistDictionary{{"k", "v"}}}},
        {"none", PlistArray{}},
        {"nothing", PlistDictionary{}},
        {"no", PlistValue::boolean(false)},
        {"text", ""}};
    EXPECT_EQ(toHumanForm(response),
              "list:\n  - a\n  - 2\n  -\n    k: v\nno: false\nnone: []\nnothing: {}\ntext: \n");
    EXPECT_EQ(toHumanForm(PlistValue::integer(0)), "0\n");
    EXPECT_EQ(formatResponse(PlistValue(), OutputForm::Human), "");
}

}  // namespace
}  // namespace velnor::host
