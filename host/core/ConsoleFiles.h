// The web console's files: where velnord leaves the console's access token and address, and
// how `velnor web-url` reads them back. The one place both sides learn where they are.
#pragma once

#include <string>

#include "Result.h"

namespace velnor::host {

// Where velnord leaves the console's token (root's, 0600) and address (root's, 0644).
inline constexpr const char* kWebTokenPath = "/run/velnor/web-token";
inline constexpr const char* kWebAddressPath = "/run/velnor/web-address";

// "http://ADDR:PORT/?token=TOKEN", from the files that velnord wrote. Fails when either is
// missing (no console runs), or is not root's alone, or the token file can be read by others.
support::Result<std::string> readWebUrl();

}  // namespace velnor::host
