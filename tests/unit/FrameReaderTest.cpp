#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <optional>

#include "ControlProtocol.h"
#include "FrameReader.h"
#include "PropertyListFile.h"

namespace velnor::host {
namespace {

using support::UniqueFd;

// Both ends of a connection; the reader's end does not block, as the loop's never does.
struct Ends {
    UniqueFd client;
    UniqueFd daemon;
};

Ends connectedEnds() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

void sendBytes(int socket, const std::string& bytes) {
    ASSERT_EQ(::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
}

const PlistDictionary kStatus{{"version", PlistValue::integer(kProtocolVersion)},
                              {"operation", PlistValue("getStateWithRequest")}};

TEST(FrameReader, AssemblesAFrameThatDribblesInAndLeavesTheNextOneInTheSocket) {
    Ends ends = connectedEnds();
    const std::string frame = encodedFrame(kStatus);
    FrameReader reader;
    for (std::size_t index = 0; index + 1 < frame.size(); ++index) {
        sendBytes(ends.client.get(), frame.substr(index, 1));
        auto read = reader.readAvailable(ends.daemon.get());
        ASSERT_TRUE(read.ok()) << read.message();
        EXPECT_FALSE(*read) << "whole after " << index + 1 << " of " << frame.size() << " bytes";
        EXPECT_TRUE(reader.begun());
    }
    // The last byte, and a whole second frame behind it.
    sendBytes(ends.client.get(), frame.substr(frame.size() - 1) + frame);
    for (int which = 0; which < 2; ++which) {
        auto read = reader.readAvailable(ends.daemon.get());
        ASSERT_TRUE(read.ok() && *read) << "frame " << which;
        EXPECT_EQ(PlistValue((*read)->message), PlistValue(kStatus));
        EXPECT_FALSE(reader.begun());
    }
    auto nothing = reader.readAvailable(ends.daemon.get());
    ASSERT_TRUE(nothing.ok());
    EXPECT_FALSE(*nothing);
}

// body behind its length.
std::string framed(const std::string& body) {
    std::string length(4, '\0');
    for (std::size_t index = 0; index < 4; ++index) {
        length[index] = static_cast<char>((body.size() >> (8 * (3 - index))) & 0xFF);
    }
    return length + body;
}

TEST(FrameReader, AssemblesABodyThatComesInManyReads) {
    // Longer than the room the body is given at each read, and than the socket holds at once.
    PlistDictionary large = kStatus;
    large.set("padding", PlistValue::data(std::string(std::size_t{900} << 10, 'x')));
    const std::string frame = encodedFrame(large);
    Ends ends = connectedEnds();
    FrameReader reader;
    std::size_t sent = 0;
    std::optional<ReceivedFrame> whole;
    while (!whole) {
        const ssize_t count = ::send(ends.client.get(), frame.data() + sent, frame.size() - sent,
                                     MSG_NOSIGNAL | MSG_DONTWAIT);
        sent += count > 0 ? static_cast<std::size_t>(count) : 0;
        auto read = reader.readAvailable(ends.daemon.get());
        ASSERT_TRUE(read.ok()) << read.message();
        whole = std::move(*read);
        ASSERT_TRUE(whole || sent < frame.size()) << "all sent, and still not whole";
    }
    EXPECT_EQ(PlistValue(whole->message), PlistValue(large));
}

TEST(FrameReader, RefusesWhatIsNoWholeDictionaryFrame) {
    const std::string tooLong("\x00\x10\x00\x01", 4);
    struct Case {
        const char* what;
        std::string sent;
        bool thenClose;
        int error;
    };
    const std::string frame = encodedFrame(kStatus);
    const Case cases[] = {
        {"a close before any byte", "", true, ENODATA},
        {"a close inside the length", frame.substr(0, 2), true, EPROTO},
        {"a close inside the body", frame.substr(0, frame.size() - 3), true, EPROTO},
        {"a length over the limit", tooLong, false, EPROTO},
        {"a body that is no property list", std::string("\x00\x00\x00\x05hello", 9), false, EPROTO},
        {"a property list that is no dictionary", framed(toBinaryPropertyList(PlistValue("x"))),
         false, EPROTO},
    };
    for (const Case& test : cases) {
        Ends ends = connectedEnds();
        if (!test.sent.empty()) {
            sendBytes(ends.client.get(), test.sent);
        }
        if (test.thenClose) {
            ends.client.reset();
        }
        FrameReader reader;
        auto read = reader.readAvailable(ends.daemon.get());
        ASSERT_FALSE(read.ok()) << test.what;
        EXPECT_EQ(read.error(), test.error) << test.what << ": " << read.message();
    }
}

TEST(FrameReader, KeepsTheDescriptorsThatCameWithTheFrame) {
    Ends ends = connectedEnds();
    const std::string frame = encodedFrame(kStatus);
    int passed[5];
    for (int& descriptor : passed) {
        descriptor = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
    }
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof passed)];
    iovec part{const_cast<char*>(frame.data()), 3};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof passed);
    std::memcpy(CMSG_DATA(header), passed, sizeof passed);
    ASSERT_EQ(sendmsg(ends.client.get(), &message, MSG_NOSIGNAL), 3);
    for (int descriptor : passed) {
        close(descriptor);
    }
    FrameReader reader;
    auto partial = reader.readAvailable(ends.daemon.get());
    ASSERT_TRUE(partial.ok() && !*partial);
    sendBytes(ends.client.get(), frame.substr(3));
    auto read = reader.readAvailable(ends.daemon.get());
    ASSERT_TRUE(read.ok() && *read);
    // One more than a command line passes is closed, not kept.
    EXPECT_EQ((*read)->passed.size(), kMostPassedDescriptors);
}

}  // namespace
}  // namespace velnor::host
