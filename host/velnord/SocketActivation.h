// The console's listening socket as systemd hands it over (velnord.socket): systemd binds the
// port at boot, before any account could take it, and velnord serves on it from its first start.
#pragma once

#include <optional>

#include "Result.h"
#include "WebListen.h"

namespace velnor::host {

// The name velnord.socket gives the console's socket (FileDescriptorName=).
inline constexpr const char* kConsoleSocketName = "velnor-console";

struct ActivatedSocket {
    int descriptor;
    // Where it listens, for the Host check and the choice of TLS.
    WebListen listen;
};

// The console's socket when systemd handed velnord one by that name; nothing otherwise. The
// variables that carried it are cleared, so that no job velnord starts believes it was handed
// sockets. Call before any thread starts. Fails when the handed-over socket is no stream socket
// listening on an address.
support::Result<std::optional<ActivatedSocket>> consoleSocketFromSystemd();

}  // namespace velnor::host
