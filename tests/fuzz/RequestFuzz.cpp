// The host's request reader on any bytes: it answers a request or a reason, never aborts.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "PropertyListFile.h"
#include "RequestFile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto request = velnor::host::requestFromBytes(
        std::string_view(reinterpret_cast<const char*>(data), size), "fuzz");
    if (request) {
        // What was accepted must also write: the plug-in stores it in the job file.
        (void)velnor::toXmlPropertyList(velnor::PlistValue(*request));
    }
    return 0;
}
