// velnor's side of the control socket: a call sent to velnord instead of run in this process.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "CommandLine.h"
#include "Invocation.h"
#include "Result.h"
#include "UniqueFd.h"

namespace velnor::host {

class DaemonClient {
  public:
    // A connection to the daemon at path; nothing when no daemon answers there (no socket, or
    // no one listening on it).
    static std::optional<DaemonClient> connect(const std::string& path);

    // The style of the daemon's operation. Fails with error() EINVAL and the daemon's message
    // when the plug-in has no such operation; with another error when the daemon cannot be
    // understood.
    support::Result<OperationStyle> styleOf(const std::string& operation);

    // Runs the call in the daemon; each log message is passed to onLog as it arrives. With
    // expectedStyle, the daemon first checks that the operation has that style: the call then
    // needs no styleOf before it. Fails with error() EINVAL and the daemon's message when the
    // plug-in has no such operation, ENOTSUP when its style is another.
    support::Result<Outcome> call(const std::string& operation, const OperationArgument& argument,
                                  std::optional<OperationStyle> expectedStyle,
                                  const std::function<void(const std::string&)>& onLog);

  private:
    explicit DaemonClient(support::UniqueFd socket) : socket_(std::move(socket)) {}

    support::Result<PlistDictionary> exchange(const PlistDictionary& request);
    support::Result<PlistDictionary> nextReply();

    support::UniqueFd socket_;
};

}  // namespace velnor::host
