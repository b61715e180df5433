// The console's page, style sheet and script, embedded in velnord when it is built from the
// files under host/velnord/web/, so that nothing is fetched from anywhere at run time.
#pragma once

#include <string_view>

namespace velnor::host {

struct WebAsset {
    std::string_view path;  // "/index.html", "/console.js", ...
    std::string_view type;  // its Content-Type
    std::string_view body;
};

// The asset served at path, or nullptr.
const WebAsset* findWebAsset(std::string_view path);

}  // namespace velnor::host
