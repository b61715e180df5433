// The cutting of a process-argument buffer on any bytes, with the length the kernel reported
// taken from the first byte.
#include <cstddef>
#include <cstdint>
#include <span>

#include "clients/ProcessArguments.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::span<const char> buffer(reinterpret_cast<const char*>(data) + 1, size - 1);
    (void)velnor::postgres::cutArgumentBuffer(buffer, data[0] % (size + 8));
    return 0;
}
