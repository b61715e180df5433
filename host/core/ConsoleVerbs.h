// The command-line side of the web console and of the settings check: `velnor web-url`, which
// prints the console's address with its access token, and `velnor settings --check K=V ...`,
// which says what the server program thinks of each setting without writing anything.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CommandLine.h"
#include "Result.h"

namespace velnor::host {

// Where velnord leaves the console's token (root's, 0600), address (root's, 0644) and, while it
// speaks TLS, the SHA-256 fingerprint of its certificate (root's, 0644).
inline constexpr const char* kWebTokenPath = "/run/velnor/web-token";
inline constexpr const char* kWebAddressPath = "/run/velnor/web-address";
inline constexpr const char* kWebFingerprintPath = "/run/velnor/web-fingerprint";

struct WebUrl {
    // "http://ADDR:PORT/?token=TOKEN", or https:// when the console speaks TLS.
    std::string url;
    // The fingerprint of the console's certificate, "AB:CD:..."; empty without TLS.
    std::string fingerprint;
};

// The console's address with its token, from the files that velnord wrote. Fails when the token
// or address is missing (no console runs), or any of them is not root's alone, or the token file
// can be read by others.
support::Result<WebUrl> readWebUrl();

// Runs `web-url` or `settings --check ...` when the command is one of them, and answers its
// exit status; nothing for every other command. Neither loads the plug-in or asks velnord.
std::optional<int> runConsoleVerb(const Command& command);

}  // namespace velnor::host
