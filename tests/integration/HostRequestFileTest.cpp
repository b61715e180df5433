// The request of `velnor call` for a request operation: from a file, XML or binary, from
// standard input, or empty; and what happens when it is not a property-list dictionary.
#include <plist/plist.h>

#include "HostFixture.h"
#include "PropertyListFile.h"

namespace velnor::testing {
namespace {

constexpr const char* kXmlRequest = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>upgrade</key>
	<false/>
	<key>count</key>
	<integer>0</integer>
	<key>dataLocation</key>
	<string>/srv/pgsql</string>
</dict>
</plist>
)";

// The same request in the binary format.
std::string binaryRequest() {
    plist_t dictionary = plist_new_dict();
    plist_dict_set_item(dictionary, "upgrade", plist_new_bool(0));
    plist_dict_set_item(dictionary, "count", plist_new_uint(0));
    plist_dict_set_item(dictionary, "dataLocation", plist_new_string("/srv/pgsql"));
    char* bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(dictionary, &bytes, &length);
    std::string result(bytes, length);
    plist_to_bin_free(bytes);
    plist_free(dictionary);
    return result;
}

PlistDictionary expectedRequest() {
    PlistDictionary request;
    request.set("upgrade", PlistValue::boolean(false));
    request.set("count", PlistValue::integer(0));
    request.set("dataLocation", "/srv/pgsql");
    return request;
}

class HostRequestFileTest : public HostFixture {
  protected:
    // The request that the echoing operation received, from its printed response.
    std::optional<PlistDictionary> receivedRequest(const VelnorRun& run) {
        std::optional<PlistValue> printed = parsePropertyList(run.out);
        if (!printed || !printed->asDictionary()) {
            ADD_FAILURE() << "no response dictionary on stdout: " << run.out << run.err;
            return std::nullopt;
        }
        const PlistValue* request = printed->asDictionary()->find("request");
        if (!request || !request->asDictionary()) {
            ADD_FAILURE() << "the response holds no request: " << run.out;
            return std::nullopt;
        }
        return *request->asDictionary();
    }

    // A bad request ends the run with 65 and a message naming its source, before the
    // plug-in runs anything.
    void expectRefused(const VelnorRun& run, const std::string& source, const std::string& why) {
        EXPECT_EQ(run.exitStatus, 65) << run.err;
        EXPECT_EQ(run.out, "");
        EXPECT_NE(run.err.find(source), std::string::npos)
            << "message names no source: " << run.err;
        EXPECT_NE(run.err.find(why), std::string::npos)
            << "message lacks \"" << why << "\": " << run.err;
        EXPECT_EQ(run.err.find("velnor_test_plugin:"), std::string::npos)
            << "the plug-in ran despite the bad request: " << run.err;
    }
};

TEST_F(HostRequestFileTest, XmlBinaryAndStandardInputGiveTheSameRequest) {
    std::string xml = writeFile("request.plist", kXmlRequest);
    std::string binary = writeFile("request.bplist", binaryRequest());

    VelnorRun fromXml = velnor({"call", "echoWithRequest", xml});
    EXPECT_EQ(fromXml.exitStatus, 0) << fromXml.err;
    EXPECT_EQ(receivedRequest(fromXml), expectedRequest()) << fromXml.out;

    VelnorRun fromBinary = velnor({"call", "echoWithRequest", binary});
    EXPECT_EQ(fromBinary.exitStatus, 0) << fromBinary.err;
    EXPECT_EQ(receivedRequest(fromBinary), expectedRequest()) << fromBinary.out;

    VelnorRun fromInput = velnor({"call", "echoWithRequest", "-"}, kXmlRequest);
    EXPECT_EQ(fromInput.exitStatus, 0) << fromInput.err;
    EXPECT_EQ(receivedRequest(fromInput), expectedRequest()) << fromInput.out;

    VelnorRun binaryInput = velnor({"call", "echoWithRequest", "-"}, binaryRequest());
    EXPECT_EQ(receivedRequest(binaryInput), expectedRequest()) << binaryInput.out;
}

TEST_F(HostRequestFileTest, NoArgumentIsAnEmptyRequest) {
    VelnorRun run = velnor({"call", "echoWithRequest"}, kXmlRequest);
    EXPECT_EQ(run.exitStatus, 0) << run.err;
    EXPECT_EQ(receivedRequest(run), PlistDictionary()) << "standard input must not be read";
}

TEST_F(HostRequestFileTest, UnreadableFileIsRefused) {
    std::string missing = path("missing.plist");
    expectRefused(velnor({"call", "echoWithRequest", missing}), missing,
                  "No such file or directory");
    std::string folder = path("");
    expectRefused(velnor({"call", "echoWithRequest", folder}), folder, "Is a directory");
}

TEST_F(HostRequestFileTest, ContentThatIsNoPropertyListIsRefused) {
    std::string text = writeFile("notes.txt", "port=5432\n");
    expectRefused(velnor({"call", "echoWithRequest", text}), text, "not a property list");
    std::string empty = writeFile("empty.plist", "");
    expectRefused(velnor({"call", "echoWithRequest", empty}), empty, "not a property list");
    expectRefused(velnor({"call", "echoWithRequest", "-"}, "{\"json\": true}"), "standard input",
                  "not a property list");
}

TEST_F(HostRequestFileTest, TopLevelOtherThanADictionaryIsRefused) {
    std::string array = writeFile("array.plist", R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><array><string>dataLocation</string></array></plist>
)");
    expectRefused(velnor({"call", "echoWithRequest", array}), array, "an array");
}

}  // namespace
}  // namespace velnor::testing
