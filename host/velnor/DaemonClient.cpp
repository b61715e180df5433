#include "DaemonClient.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "ControlProtocol.h"
#include "ExitStatus.h"

namespace velnor::host {
namespace {

support::Failure daemonFailure(const std::string& reason, int error = EPROTO) {
    return {error, "velnord " + reason};
}

}  // namespace

std::optional<DaemonClient> DaemonClient::connect(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        return std::nullopt;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    support::UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket.valid() ||
        ::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        return std::nullopt;
    }
    return DaemonClient(std::move(socket));
}

support::Result<PlistDictionary> DaemonClient::nextReply() {
    support::Result<PlistDictionary> reply = readFrame(socket_.get());
    if (!reply) {
        return daemonFailure("ended the connection before it answered (" + reply.message() + ")");
    }
    const std::string* kind = textAt(*reply, "kind");
    if (kind != nullptr && *kind == "error") {
        const std::string* text = textAt(*reply, "error");
        const PlistValue* status = reply->find("status");
        // An operation that the plug-in lacks is the caller's mistake, as it is in-process; one
        // of another style is one that this command cannot call.
        if (status != nullptr && text != nullptr) {
            return support::Failure{status->asInteger() == kExitUsage ? EINVAL : ENOTSUP, *text};
        }
        return daemonFailure("refused the call: " + (text ? *text : std::string("no reason")));
    }
    return reply;
}

support::Result<PlistDictionary> DaemonClient::exchange(const PlistDictionary& request) {
    if (support::Status sent = writeFrame(socket_.get(), request); !sent) {
        return daemonFailure("could not be sent the call: " + sent.message(), sent.error());
    }
    return nextReply();
}

support::Result<OperationStyle> DaemonClient::styleOf(const std::string& operation) {
    support::Result<PlistDictionary> reply =
        exchange({{"version", PlistValue::integer(kProtocolVersion)},
                  {"operation", PlistValue(operation)},
                  {"describe", PlistValue::boolean(true)}});
    if (!reply) {
        return reply.failure();
    }
    const std::string* name = textAt(*reply, "style");
    std::optional<OperationStyle> style = name ? styleNamed(*name) : std::nullopt;
    if (!style) {
        return daemonFailure("answered no style for " + operation);
    }
    return *style;
}

support::Result<Outcome> DaemonClient::call(const std::string& operation,
                                            const OperationArgument& argument,
                                            std::optional<OperationStyle> expectedStyle,
                                            const std::function<void(const std::string&)>& onLog) {
    PlistDictionary request = callRequest(operation, argument);
    if (expectedStyle) {
        request.set("style", PlistValue(styleName(*expectedStyle)));
    }
    support::Result<PlistDictionary> reply = exchange(request);
    for (;;) {
        if (!reply) {
            return reply.failure();
        }
        const std::string* kind = textAt(*reply, "kind");
        if (kind != nullptr && *kind == "outcome") {
            return outcomeOfReply(*reply);
        }
        if (kind != nullptr && *kind == "log") {
            if (const std::string* message = textAt(*reply, "message")) {
                onLog(*message);
            }
        }
        reply = nextReply();
    }
}

}  // namespace velnor::host
