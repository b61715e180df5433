// What velnor and velnord say to each other on the daemon's control socket.
//
// Every message is a frame: its length as 4 bytes, big-endian, then that many bytes of a binary
// property list whose top level is a dictionary. A frame longer than kMaxFrameBytes is refused
// unread. Each request carries "version" (kProtocolVersion); a daemon that speaks another version
// answers an "error" and closes. The requests, one at a time on a connection:
//
//   {operation: NAME, describe: true}   -> {kind: "style", style: "request"|"service"|"idle"}
//   {operation: NAME, request: DICT}    -> {kind: "log", priority: INT, message: TEXT} ...
//   {operation: NAME[, variant: TEXT]}     then {kind: "outcome", answered: BOOL,
//   {operation: NAME, count: INT}           [response: VALUE], [failure: TEXT]}
//   {run: [DATA, ...], plugin: DATA}    -> {kind: "exit", status: INT} | {kind: "direct"}
//
// The command-line request comes with four descriptors (SCM_RIGHTS): the client's standard
// input, output and error and its working folder. The daemon runs the command there, writing to
// those descriptors, and the connection ends with the reply; "direct" tells the client to run
// the command in its own process (--direct, or a plug-in other than the daemon's).
//
// An operation the plug-in does not have answers {kind: "error", error: TEXT, status: 64}; a
// malformed request, or a peer that is not root, {kind: "error", error: TEXT}, and the daemon
// closes the connection.
#pragma once

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
std::optional<OperationStyle> styleNamed(std::string_view name);

// Writes message as one frame; fails with the system's error (EPIPE for a peer that has gone).
support::Status writeFrame(int descriptor, const PlistDictionary& message);

// Reads one frame, with the descriptors that came along with it in passed (at most
// kMostPassedDescriptors; any other is closed, as all are when passed is nullptr). Fails with
// error() ENODATA when the peer closed before a frame began; EPROTO for a truncated frame, one
// longer than kMaxFrameBytes, or one that holds no dictionary.
support::Result<PlistDictionary> readFrame(int descriptor,
                                           std::vector<support::UniqueFd>* passed = nullptr);

// The request that calls operation with argument, which fits the operation's style.
PlistDictionary callRequest(const std::string& operation, const OperationArgument& argument);

// The argument that a call request carries for an operation of this style; fails, saying why,
// when the request carries none that fits.
support::Result<OperationArgument> argumentOfRequest(const PlistDictionary& request,
                                                     OperationStyle style);

// The outcome as its reply, and back.
PlistDictionary outcomeReply(const Outcome& outcome);
Outcome outcomeOfReply(const PlistDictionary& reply);

// {kind: "error", error: text[, status]}.
PlistDictionary errorReply(const std::string& text, std::optional<int> status = std::nullopt);

// The text value under key, or nullptr.
const std::string* textAt(const PlistDictionary& message, std::string_view key);

}  // namespace velnor::host
