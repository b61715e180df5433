// velnor's hand-written frames (host/velnor/Frame.c), checked against the host's property-list
// library: what velnor writes must read back exactly, and what velnord may write must read as
// it meant. Damaged replies are the fuzz target's (tests/fuzz/ClientReplyFuzz.cpp).
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Frame.h"
#include "PropertyListFile.h"

namespace velnor {
namespace {

// ---- The request --------------------------------------------------------------------------

// The frame velnor writes for these arguments into storage of lent bytes (none: the heap from
// the start), or "" when it refuses to write one.
std::string frameWrittenInto(const std::vector<std::string>& arguments, const char* plugin,
                             std::size_t lent) {
    std::vector<char*> pointers;
    for (const std::string& argument : arguments) {
        pointers.push_back(const_cast<char*>(argument.c_str()));
    }
    std::vector<unsigned char> storage(lent);
    FrameBuffer frame = {lent > 0 ? storage.data() : nullptr, 0, lent, 0, 0};
    if (!writeCommandRequest(pointers.data(), pointers.size(), plugin, &frame)) {
        EXPECT_EQ(frame.bytes, nullptr);
        EXPECT_EQ(frame.size, 0u);
        return "";
    }
    std::string bytes(reinterpret_cast<const char*>(frame.bytes), frame.size);
    releaseFrame(&frame);
    return bytes;
}

// The frame velnor writes, which is the same whether it starts on the heap or in storage that
// it may outgrow.
std::string writtenFrame(const std::vector<std::string>& arguments, const char* plugin) {
    const std::string bytes = frameWrittenInto(arguments, plugin, 0);
    EXPECT_EQ(frameWrittenInto(arguments, plugin, 256), bytes) << "written into lent storage";
    return bytes;
}

// The property list of that frame, read by the library; absent when velnor refuses to write
// it. The frame's length must be that of what follows it.
PlistValue writtenRequest(const std::vector<std::string>& arguments, const char* plugin) {
    const std::string bytes = writtenFrame(arguments, plugin);
    if (bytes.empty()) {
        return PlistValue();
    }
    EXPECT_GE(bytes.size(), 4u);
    const std::size_t length = (std::size_t(std::uint8_t(bytes[0])) << 24) |
                               (std::size_t(std::uint8_t(bytes[1])) << 16) |
                               (std::size_t(std::uint8_t(bytes[2])) << 8) | std::uint8_t(bytes[3]);
    EXPECT_EQ(length, bytes.size() - 4);
    auto parsed = parsePropertyList(std::string_view(bytes).substr(4));
    EXPECT_TRUE(parsed.ok()) << parsed.message();
    return parsed.ok() ? *parsed : PlistValue();
}

PlistValue expectedRequest(const std::vector<std::string>& arguments, const char* plugin) {
    PlistArray run;
    for (const std::string& argument : arguments) {
        run.push_back(PlistValue::data(argument));
    }
    PlistDictionary request{{"version", PlistValue::integer(1)}, {"run", run}};
    if (plugin != nullptr) {
        request.set("plugin", PlistValue::data(plugin));
    }
    return request;
}

std::vector<std::string> numbered(std::size_t count) {
    std::vector<std::string> arguments;
    for (std::size_t index = 0; index < count; ++index) {
        arguments.push_back("a" + std::to_string(index));
    }
    return arguments;
}

TEST(ClientFrame, RequestReadsBackAsTheArgumentsAndPlugin) {
    // Counts of 15 and more leave the marker's nibble for an integer that follows; lengths and
    // counts past 255 and 65535 need wider integers there.
    const std::pair<const char*, std::vector<std::string>> rows[] = {
        {"no arguments", {}},
        {"one argument", {"status"}},
        {"an empty argument", {"", "x", ""}},
        {"bytes that are not ASCII or not UTF-8", {"caf\xc3\xa9", "\xff\xfe\x01", "\x7f\x80"}},
        {"14 and 15 bytes", {std::string(14, 'a'), std::string(15, 'b')}},
        {"past 255 bytes", {std::string(256, 'c')}},
        {"past 65535 bytes", {std::string(65536, 'd'), "after"}},
        {"14 arguments", numbered(14)},
        {"15 arguments", numbered(15)},
        {"256 arguments", numbered(256)},
        {"65536 bytes over many arguments", std::vector<std::string>(300, std::string(300, 'e'))},
    };
    const std::string longPlugin(70000, 'p');
    for (const char* plugin : {static_cast<const char*>(nullptr), "/usr/lib/velnor/tool.so",
                               "\xc3\xa9\xff", "", longPlugin.c_str()}) {
        for (const auto& [name, arguments] : rows) {
            EXPECT_EQ(writtenRequest(arguments, plugin), expectedRequest(arguments, plugin))
                << name << (plugin ? ", with a plugin" : "");
        }
    }
}

TEST(ClientFrame, RequestRefusesWhatAFrameCannotHold) {
    // The library reads so many arguments slowly; the rows above have checked their layout.
    EXPECT_NE(writtenFrame(std::vector<std::string>(kMaxRequestArguments, ""), nullptr), "");
    EXPECT_EQ(writtenFrame(std::vector<std::string>(kMaxRequestArguments + 1, ""), nullptr), "");
    const std::vector<std::string> nearlyFull{std::string(kMaxFrameBytes - 200, 'f')};
    EXPECT_EQ(writtenRequest(nearlyFull, "p"), expectedRequest(nearlyFull, "p"));
    EXPECT_TRUE(writtenRequest({std::string(kMaxFrameBytes, 'f')}, nullptr).isAbsent());
    EXPECT_TRUE(writtenRequest({"status"}, std::string(kMaxFrameBytes, 'p').c_str()).isAbsent());
}

// ---- The reply ----------------------------------------------------------------------------

// The bytes placed right before an inaccessible page, so that a read past their end faults.
class FencedBytes {
  public:
    explicit FencedBytes(const std::string& bytes) {
        const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        size_ = (bytes.size() / page + 2) * page;
        void* mapped =
            mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapped == MAP_FAILED) {
            throw std::runtime_error("could not map the fenced bytes");
        }
        base_ = static_cast<unsigned char*>(mapped);
        mprotect(base_ + size_ - page, page, PROT_NONE);
        start_ = base_ + size_ - page - bytes.size();
        std::memcpy(start_, bytes.data(), bytes.size());
    }
    ~FencedBytes() { munmap(base_, size_); }
    FencedBytes(const FencedBytes&) = delete;
    FencedBytes& operator=(const FencedBytes&) = delete;

    const unsigned char* data() const { return start_; }

  private:
    unsigned char* base_ = nullptr;
    unsigned char* start_ = nullptr;
    std::size_t size_ = 0;
};

// What velnor makes of a reply, in a line: "refused", or the kind, then the status and error
// when there are.
std::string readReply(const std::string& bytes) {
    const FencedBytes fenced(bytes);
    CommandReply reply;
    std::memset(&reply, 0x5A, sizeof reply);
    if (!readCommandReply(fenced.data(), bytes.size(), &reply)) {
        return "refused";
    }
    std::string line = reply.kind;
    if (reply.hasStatus) {
        line += " " + std::to_string(reply.status);
    }
    if (reply.error[0] != '\0') {
        line += std::string(" \"") + reply.error + "\"";
    }
    return line;
}

std::string binary(const PlistDictionary& dictionary) {
    return toBinaryPropertyList(dictionary);
}

TEST(ClientFrame, ReplyFromTheLibraryReadsAsMeant) {
    const PlistValue error("error");
    const std::pair<PlistDictionary, std::string> rows[] = {
        {{{"kind", "exit"}, {"status", PlistValue::integer(0)}}, "exit 0"},
        {{{"kind", "exit"}, {"status", PlistValue::integer(3)}}, "exit 3"},
        {{{"kind", "exit"}, {"status", PlistValue::integer(255)}}, "exit 255"},
        {{{"kind", "exit"}, {"status", PlistValue::integer(65536)}}, "exit 65536"},
        {{{"kind", "exit"}, {"status", PlistValue::integer(-1)}}, "exit -1"},
        {{{"kind", "direct"}}, "direct"},
        {{{"kind", "error"}, {"error", "could not run \"x\": no such tool"}},
         "error \"could not run \"x\": no such tool\""},
        {{{"kind", error}, {"error", "no plug-in"}, {"status", PlistValue::integer(69)}},
         "error 69 \"no plug-in\""},
        // Text outside ASCII is written as UTF-16, and read back as UTF-8.
        {{{"kind", error}, {"error", "caf\xc3\xa9 \xe2\x82\xac"}},
         "error \"caf\xc3\xa9 \xe2\x82\xac\""},
        // What velnor does not know is passed over; a status it cannot hold is no status.
        {{{"kind", "exit"}, {"status", PlistValue::integer(1)}, {"later", PlistArray{"x"}}},
         "exit 1"},
        {{{"kind", "exit"}, {"status", "0"}}, "exit"},
        {{{"kind", "exit"}, {"status", PlistValue::unsignedInteger(UINT64_MAX)}}, "exit"},
        // Refused: no kind, or a kind or error that is no text.
        {{{"status", PlistValue::integer(0)}}, "refused"},
        {{{"kind", ""}}, "refused"},
        {{{"kind", PlistValue::integer(1)}}, "refused"},
        {{{"kind", PlistValue::data("exit")}}, "refused"},
        {{{"kind", "error"}, {"error", PlistValue::data("")}}, "refused"},
        {{{"kind", "error"}, {"error", PlistArray{}}}, "refused"},
        {{{"kind", "error"}, {"error", PlistDictionary{}}}, "refused"},
    };
    for (const auto& [reply, line] : rows) {
        EXPECT_EQ(readReply(binary(reply)), line) << toXmlPropertyList(reply);
    }
    EXPECT_EQ(readReply(toBinaryPropertyList(PlistArray{"exit"})), "refused");
    EXPECT_EQ(readReply(toBinaryPropertyList(PlistValue("exit"))), "refused");

    // Texts are cut to fit, and stay terminated.
    const std::string cut =
        readReply(binary({{"kind", "error"}, {"error", std::string(5000, 'x')}}));
    EXPECT_EQ(cut.substr(0, 8), "error \"x");
    EXPECT_LT(cut.size(), 1024u + 8);
    EXPECT_EQ(readReply(binary({{"kind", std::string(40, 'k')}})).size(), 12u);
}

}  // namespace
}  // namespace velnor
