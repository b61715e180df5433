// Where the web console listens, as --web-listen names it.
#pragma once

#include <string>
#include <string_view>

#include "Result.h"

namespace velnor::host {

struct WebListen {
    std::string address = "127.0.0.1";
    int port = 8471;
};

// Whether only this machine can reach the address: 127.0.0.0/8, ::1 (or 127.x mapped into
// IPv6) and localhost. Anything else is reached over a network, and the console speaks only TLS
// there.
bool isLoopback(const WebListen& listen);

// Where the metrics endpoint listens unless --metrics-listen says otherwise.
inline const WebListen kDefaultMetricsListen{"127.0.0.1", 8472};

// "ADDR:PORT" ("[ADDR]:PORT" for IPv6); fails, saying why and naming option, on anything else.
support::Result<WebListen> parseWebListen(std::string_view text,
                                          std::string_view option = "--web-listen");

}  // namespace velnor::host
