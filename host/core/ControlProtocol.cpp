#include "ControlProtocol.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "PropertyListFile.h"

namespace velnor::host {
namespace {

constexpr std::size_t kLengthBytes = 4;

support::Failure protocolFailure(const std::string& reason) {
    return {EPROTO, reason};
}

// Reads exactly size bytes; the descriptors that come along go to passed, or are closed when
// passed is nullptr or full. Answers how many bytes came before the end of the stream; -1, with
// errno set, when a read failed.
ssize_t readExactly(int descriptor, char* buffer, std::size_t size,
                    std::vector<support::UniqueFd>* passed) {
    std::size_t done = 0;
    while (done < size) {
        iovec part{buffer + done, size - done};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMostPassedDescriptors)];
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        ssize_t count = ::recvmsg(descriptor, &message, MSG_CMSG_CLOEXEC);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return -1;
        }
        takePassedDescriptors(message, passed);
        if (count == 0) {
            break;
        }
        done += static_cast<std::size_t>(count);
    }
    return static_cast<ssize_t>(done);
}

}  // namespace

const char* styleName(OperationStyle style) {
    switch (style) {
        case OperationStyle::Request:
            return "request";
        case OperationStyle::Service:
            return "service";
        case OperationStyle::Idle:
            return "idle";
    }
    return "unknown";
}

void takePassedDescriptors(msghdr& message, std::vector<support::UniqueFd>* passed) {
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        const std::size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (std::size_t index = 0; index < count; ++index) {
            int received;
            std::memcpy(&received, CMSG_DATA(header) + index * sizeof(int), sizeof received);
            support::UniqueFd owned(received);
            if (passed != nullptr && passed->size() < kMostPassedDescriptors) {
                passed->push_back(std::move(owned));
            }
        }
    }
}

support::Status writeFrame(int descriptor, const PlistDictionary& message) {
    std::string body = toBinaryPropertyList(PlistValue(message));
    std::string frame(kLengthBytes, '\0');
    for (std::size_t index = 0; index < kLengthBytes; ++index) {
        frame[index] = static_cast<char>((body.size() >> (8 * (kLengthBytes - 1 - index))) & 0xFF);
    }
    frame += body;
    std::size_t done = 0;
    while (done < frame.size()) {
        // MSG_NOSIGNAL: a client that has gone is an error here, not a SIGPIPE for the daemon.
        ssize_t count = ::send(descriptor, frame.data() + done, frame.size() - done, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return support::couldNot("write a frame to", "the control socket", errno);
        }
        done += static_cast<std::size_t>(count);
    }
    return {};
}

support::Result<PlistDictionary> readFrame(int descriptor, std::vector<support::UniqueFd>* passed) {
    std::array<unsigned char, kLengthBytes> prefix{};
    ssize_t count =
        readExactly(descriptor, reinterpret_cast<char*>(prefix.data()), kLengthBytes, passed);
    if (count < 0) {
        return support::couldNot("read a frame from", "the control socket", errno);
    }
    if (count == 0) {
        return support::Failure{ENODATA, "the peer closed the connection"};
    }
    if (static_cast<std::size_t>(count) < kLengthBytes) {
        return protocolFailure("a frame ended inside its length");
    }
    std::size_t length = 0;
    for (unsigned char byte : prefix) {
        length = (length << 8) | byte;
    }
    if (length > kMaxFrameBytes) {
        return protocolFailure("a frame of " + std::to_string(length) + " bytes is over the " +
                               std::to_string(kMaxFrameBytes) + "-byte limit");
    }
    std::string body(length, '\0');
    count = readExactly(descriptor, body.data(), length, passed);
    if (count < 0) {
        return support::couldNot("read a frame from", "the control socket", errno);
    }
    if (static_cast<std::size_t>(count) < length) {
        return protocolFailure("a frame ended after " + std::to_string(count) + " of its " +
                               std::to_string(length) + " bytes");
    }
    support::Result<PlistValue> value = parsePropertyList(body);
    if (!value) {
        return protocolFailure("a frame holds no property list: " + value.message());
    }
    if (const PlistDictionary* message = value->asDictionary()) {
        return *message;
    }
    return protocolFailure("a frame holds no dictionary");
}

support::Result<OperationArgument> argumentOfRequest(const PlistDictionary& request,
                                                     OperationStyle style) {
    const PlistValue* value = nullptr;
    switch (style) {
        case OperationStyle::Request:
            value = request.find("request");
            if (value == nullptr || value->asDictionary() == nullptr) {
                return protocolFailure("a request operation needs a \"request\" dictionary");
            }
            return OperationArgument(*value->asDictionary());
        case OperationStyle::Service:
            value = request.find("variant");
            if (value == nullptr) {
                return OperationArgument(PlistValue());
            }
            if (value->asString() == nullptr) {
                return protocolFailure("a service operation's \"variant\" is a string");
            }
            return OperationArgument(*value);
        case OperationStyle::Idle: {
            value = request.find("count");
            std::optional<std::int64_t> count = value ? value->asInteger() : std::nullopt;
            if (!count || *count < INT32_MIN || *count > INT32_MAX) {
                return protocolFailure("an idle operation needs a \"count\" that is an int32");
            }
            return OperationArgument(static_cast<std::int32_t>(*count));
        }
    }
    return protocolFailure("an operation of an unknown style");
}

PlistDictionary outcomeReply(const Outcome& outcome) {
    PlistDictionary reply{{"kind", PlistValue("outcome")},
                          {"answered", PlistValue::boolean(outcome.answered)}};
    if (!outcome.result.isAbsent()) {
        reply.set("response", outcome.result);
    }
    if (!outcome.answered) {
        reply.set("failure", PlistValue(outcome.failure));
    }
    return reply;
}

PlistDictionary errorReply(const std::string& text, std::optional<int> status) {
    PlistDictionary reply{{"kind", PlistValue("error")}, {"error", PlistValue(text)}};
    if (status) {
        reply.set("status", PlistValue::integer(*status));
    }
    return reply;
}

const std::string* textAt(const PlistDictionary& message, std::string_view key) {
    const PlistValue* value = message.find(key);
    return value != nullptr ? value->asString() : nullptr;
}

const std::string* bytesOf(const PlistValue& value) {
    return value.asData() != nullptr ? value.asData() : value.asString();
}

std::optional<std::vector<std::string>> runArgumentsOf(const PlistDictionary& request) {
    const PlistValue* run = request.find("run");
    const PlistArray* array = run != nullptr ? run->asArray() : nullptr;
    if (array == nullptr) {
        return std::nullopt;
    }
    std::vector<std::string> arguments;
    for (const PlistValue& argument : *array) {
        const std::string* text = bytesOf(argument);
        if (text == nullptr) {
            return std::nullopt;
        }
        arguments.push_back(*text);
    }
    return arguments;
}

}  // namespace velnor::host
