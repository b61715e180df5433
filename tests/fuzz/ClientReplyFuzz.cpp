// velnor's reader of velnord's reply on any bytes: a damaged reply is refused or read, never read
// past its end, and a text it keeps is always terminated within its field.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Frame.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // An exact copy on the heap, so that AddressSanitizer sees any read past the reply's end.
    std::vector<unsigned char> bytes(data, data + size);
    CommandReply reply;
    std::memset(&reply, 0x5A, sizeof reply);
    if (readCommandReply(bytes.data(), bytes.size(), &reply) &&
        (std::memchr(reply.kind, '\0', sizeof reply.kind) == nullptr ||
         std::memchr(reply.error, '\0', sizeof reply.error) == nullptr)) {
        std::abort();
    }
    return 0;
}
