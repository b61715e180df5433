// What velnor and velnord say to each other on the daemon's control socket: frames of a 4-byte
// big-endian length and a binary property list holding a dictionary. The messages, their
// descriptors and their errors are described once, in doc/control-protocol.md; the client's own
// framing is in host/velnor/Client.c.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Invocation.h"
#include "PlistValue.h"
#include "Result.h"
#include "UniqueFd.h"

namespace velnor::host {

inline constexpr const char* kControlSocketPath = "/run/velnor/velnord.sock";
inline constexpr std::int64_t kProtocolVersion = 1;
inline constexpr std::size_t kMaxFrameBytes = std::size_t{1} << 20;
// A command line's request passes its standard input, output and error and its working folder.
inline constexpr std::size_t kMostPassedDescriptors = 4;

// The style's name in the protocol and in messages: "request", "service", "idle".
const char* styleName(OperationStyle style);

// Takes ownership of the descriptors that a received message carried: up to
// kMostPassedDescriptors go to passed, and any other is closed, as all are when passed is nullptr.
void takePassedDescriptors(msghdr& message, std::vector<support::UniqueFd>* passed);

// Writes message as one frame; fails with the system's error (EPIPE for a peer that has gone).
support::Status writeFrame(int descriptor, const PlistDictionary& message);

// Reads one frame, with the descriptors that came along with it in passed (at most
// kMostPassedDescriptors; any other is closed, as all are when passed is nullptr). Fails with
// error() ENODATA when the peer closed before a frame began; EPROTO for a truncated frame, one
// longer than kMaxFrameBytes, or one that holds no dictionary.
support::Result<PlistDictionary> readFrame(int descriptor,
                                           std::vector<support::UniqueFd>* passed = nullptr);

// The argument that a call request carries for an operation of this style; fails, saying why,
// when the request carries none that fits.
support::Result<OperationArgument> argumentOfRequest(const PlistDictionary& request,
                                                     OperationStyle style);

// The outcome as its reply.
PlistDictionary outcomeReply(const Outcome& outcome);

// {kind: "error", error: text[, status]}.
PlistDictionary errorReply(const std::string& text, std::optional<int> status = std::nullopt);

// The text value under key, or nullptr.
const std::string* textAt(const PlistDictionary& message, std::string_view key);

// The bytes of a string or data value; nullptr for any other kind.
const std::string* bytesOf(const PlistValue& value);

// The arguments of a command-line request's "run": each a string or, as velnor sends them, the
// bytes it was given. Nothing when the request has no "run", or it is not such an array.
std::optional<std::vector<std::string>> runArgumentsOf(const PlistDictionary& request);

}  // namespace velnor::host
