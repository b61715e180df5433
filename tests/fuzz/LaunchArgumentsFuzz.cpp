// The launch-argument codec on any arguments: the bytes are cut into arguments at zero bytes.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "config/LaunchArgumentCodec.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    velnor::LaunchArguments arguments(1);
    for (std::size_t i = 0; i < size; ++i) {
        if (data[i] == 0) {
            arguments.emplace_back();
        } else {
            arguments.back() += static_cast<char>(data[i]);
        }
    }
    using namespace velnor::postgres;
    const OptionalArguments stored(arguments);
    const velnor::PlistDictionary settings = scanSettings(stored);
    // Arguments too short for the fixed slots end the codec with a range error, which the
    // operations leave uncaught on purpose.
    try {
        (void)composeArguments(stored, settings);
        (void)dataFolderSlot(stored);
        (void)lookUpDataFolder(stored);
        (void)scanSettingsAndDataFolder(stored);
    } catch (const std::out_of_range&) {
    }
    return 0;
}
