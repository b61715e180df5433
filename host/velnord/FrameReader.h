// A control-socket frame assembled from a non-blocking socket as its bytes arrive, so that the
// event loop reads whatever a client has sent and moves on, never waiting for the rest.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "PlistValue.h"
#include "Result.h"
#include "UniqueFd.h"

namespace velnor::host {

// One whole request with the descriptors that came along with it.
struct ReceivedFrame {
    PlistDictionary message;
    std::vector<support::UniqueFd> passed;
};

class FrameReader {
  public:
    // Reads what the socket holds now, up to the end of the frame it is in (the bytes of a next
    // frame stay in the socket). Answers the frame once whole; nothing while more is to come.
    // Fails with ENODATA when the peer closed before a frame began, EPROTO for a frame that ended
    // early, is longer than kMaxFrameBytes or holds no dictionary, and the system's error when a
    // read failed.
    support::Result<std::optional<ReceivedFrame>> readAvailable(int socket);

    // Some of a frame has come but not all of it.
    bool begun() const { return have_ > 0 || length_.has_value(); }

  private:
    support::Result<std::optional<ReceivedFrame>> finish();
    void restart();

    std::array<unsigned char, 4> prefix_{};
    std::size_t have_ = 0;  // bytes of the prefix, then of the body
    std::optional<std::size_t> length_;
    std::string body_;
    std::vector<support::UniqueFd> passed_;
};

// The bytes of message as one frame: its length as 4 bytes, big-endian, then the property list.
std::string encodedFrame(const PlistDictionary& message);

}  // namespace velnor::host
