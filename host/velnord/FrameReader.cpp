#include "FrameReader.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ControlProtocol.h"
#include "PropertyListFile.h"

namespace velnor::host {
namespace {

using support::Result;

constexpr std::size_t kLengthBytes = 4;
// How much more room a body gets for each read: it grows as its bytes come, so that a client
// that sends a large length and nothing after it holds next to no memory.
constexpr std::size_t kGrowthBytes = std::size_t{64} << 10;

support::Failure protocolFailure(const std::string& reason) {
    return {EPROTO, reason};
}

// One non-blocking read into buffer; the count, 0 at the end of the stream, -1 with errno set.
ssize_t receive(int socket, char* buffer, std::size_t size,
                std::vector<support::UniqueFd>& passed) {
    iovec part{buffer, size};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMostPassedDescriptors)];
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    ssize_t count;
    do {
        count = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
    } while (count < 0 && errno == EINTR);
    if (count >= 0) {
        takePassedDescriptors(message, &passed);
    }
    return count;
}

}  // namespace

Result<std::optional<ReceivedFrame>> FrameReader::readAvailable(int socket) {
    for (;;) {
        char* into = nullptr;
        std::size_t wanted = 0;
        if (!length_) {
            into = reinterpret_cast<char*>(prefix_.data()) + have_;
            wanted = kLengthBytes - have_;
        } else {
            wanted = std::min(*length_ - have_, kGrowthBytes);
            if (body_.size() < have_ + wanted) {
                body_.resize(have_ + wanted);
            }
            into = body_.data() + have_;
        }
        if (wanted == 0) {
            return finish();
        }
        const ssize_t count = receive(socket, into, wanted, passed_);
        if (count < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                return std::optional<ReceivedFrame>();
            }
            return support::couldNot("read a frame from", "the control socket", errno);
        }
        if (count == 0) {
            if (!begun()) {
                return support::Failure{ENODATA, "the peer closed the connection"};
            }
            return protocolFailure(length_ ? "a frame ended after " + std::to_string(have_) +
                                                 " of its " + std::to_string(*length_) + " bytes"
                                           : std::string("a frame ended inside its length"));
        }
        have_ += static_cast<std::size_t>(count);
        if (!length_ && have_ == kLengthBytes) {
            std::size_t length = 0;
            for (unsigned char byte : prefix_) {
                length = (length << 8) | byte;
            }
            if (length > kMaxFrameBytes) {
                return protocolFailure("a frame of " + std::to_string(length) +
                                       " bytes is over the " + std::to_string(kMaxFrameBytes) +
                                       "-byte limit");
            }
            length_ = length;
            body_.clear();
            have_ = 0;
        }
    }
}

Result<std::optional<ReceivedFrame>> FrameReader::finish() {
    Result<PlistValue> value = parsePropertyList(body_);
    std::vector<support::UniqueFd> passed = std::move(passed_);
    restart();
    if (!value) {
        return protocolFailure("a frame holds no property list: " + value.message());
    }
    const PlistDictionary* message = value->asDictionary();
    if (message == nullptr) {
        return protocolFailure("a frame holds no dictionary");
    }
    return std::optional<ReceivedFrame>(ReceivedFrame{*message, std::move(passed)});
}

void FrameReader::restart() {
    have_ = 0;
    length_.reset();
    body_.clear();
    passed_.clear();
}

std::string encodedFrame(const PlistDictionary& message) {
    const std::string body = toBinaryPropertyList(PlistValue(message));
    std::string frame(kLengthBytes, '\0');
    for (std::size_t index = 0; index < kLengthBytes; ++index) {
        frame[index] = static_cast<char>((body.size() >> (8 * (kLengthBytes - 1 - index))) & 0xFF);
    }
    return frame + body;
}

}  // namespace velnor::host
