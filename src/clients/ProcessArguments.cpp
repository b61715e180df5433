#include "clients/ProcessArguments.h"

#include <algorithm>
#include <cstring>

#include "PlistText.h"

namespace velnor::postgres {

bool isValidUtf8(std::string_view bytes) {
    // The host library's one reading of UTF-8, which its property lists use too.
    for (std::size_t position = 0; position < bytes.size();) {
        const std::size_t length = utf8LengthAt(bytes, position);
        if (length == 0) {
            return false;
        }
        position += length;
    }
    return true;
}

std::vector<std::string> cutArgumentBuffer(std::span<const char> buffer, std::size_t length) {
    std::vector<std::string> pieces;
    if (buffer.empty()) {
        return pieces;
    }
    length = std::min(length, buffer.size());
    std::size_t position = 0;
    do {
        // The piece runs to its zero byte, past length if need be, but never past the buffer.
        const char* start = buffer.data() + position;
        const std::size_t room = buffer.size() - position;
        const std::string_view piece(start, strnlen(start, room));
        if (!piece.empty() && isValidUtf8(piece)) {
            pieces.emplace_back(piece);
        }
        // The next piece starts after the first zero byte at or after position, looking no
        // further than the last delivered byte.
        const void* zero =
            position < length ? std::memchr(start, '\0', length - position) : nullptr;
        position =
            zero ? static_cast<std::size_t>(static_cast<const char*>(zero) - buffer.data()) + 1
                 : length;
    } while (position < length && position < buffer.size());
    return pieces;
}

}  // namespace velnor::postgres
