// The control socket's frame reader on any bytes a client may send, and the admission of each
// whole frame as another account's request: every frame is answered or refused with a reason,
// nothing aborts, and a non-root request is never served what only root may ask.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "Admission.h"
#include "FrameReader.h"

namespace {

const velnor::host::Caller kStranger{1000, "stranger", 1, velnor::host::Channel::ControlSocket, {}};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
        return 0;
    }
    velnor::support::UniqueFd client(ends[0]);
    velnor::support::UniqueFd daemon(ends[1]);
    // What the socket takes; an input longer than its buffer is cut there, as a client that
    // stops sending would leave it.
    (void)::send(client.get(), data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    ::shutdown(client.get(), SHUT_WR);
    velnor::host::FrameReader reader;
    for (;;) {
        auto read = reader.readAvailable(daemon.get());
        if (!read || !*read) {
            break;
        }
        const velnor::PlistDictionary& message = (*read)->message;
        const velnor::host::AdmissionDecision decision =
            velnor::host::admissionOf(kStranger, message);
        // A request that is not a command line is root's, whatever else it holds.
        if (!message.contains("run") &&
            decision.kind != velnor::host::AdmissionDecision::Kind::Refuse) {
            std::abort();
        }
    }
    return 0;
}
