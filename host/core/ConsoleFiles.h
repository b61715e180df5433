// The web console's files: where velnord leaves the console's access token, address and
// certificate fingerprint, and how `velnor web-url` reads them back. The one place both sides
// learn where they are.
#pragma once

#include <string>

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

}  // namespace velnor::host
