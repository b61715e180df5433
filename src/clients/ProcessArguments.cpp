#include "clients/ProcessArguments.h"

#include <algorithm>
#include <cstring>

namespace velnor::postgres {
namespace {

// The length of a UTF-8 sequence from its lead byte, 0 for a byte that cannot lead one.
std::size_t sequenceLength(unsigned char lead) {
    if (lead < 0x80)
        return 1;
    if (lead >= 0xC2 && lead <= 0xDF)
        return 2;
    if (lead >= 0xE0 && lead <= 0xEF)
        return 3;
    if (lead >= 0xF0 && lead <= 0xF4)
        return 4;
    return 0;
}

bool isContinuation(unsigned char byte) {
    return (byte & 0xC0) == 0x80;
}

// The second byte's range is narrower after some lead bytes: it rules out overlong forms,
// surrogates and values past U+10FFFF.
bool secondByteFits(unsigned char lead, unsigned char second) {
    switch (lead) {
        case 0xE0:
            return second >= 0xA0 && second <= 0xBF;
        case 0xED:
            return second >= 0x80 && second <= 0x9F;
        case 0xF0:
            return second >= 0x90 && second <= 0xBF;
        case 0xF4:
            return second >= 0x80 && second <= 0x8F;
        default:
            return isContinuation(second);
    }
}

}  // namespace

bool isValidUtf8(std::string_view bytes) {
    for (std::size_t position = 0; position < bytes.size();) {
        const auto lead = static_cast<unsigned char>(bytes[position]);
        const std::size_t length = sequenceLength(lead);
        if (length == 0 || position + length > bytes.size()) {
            return false;
        }
        if (length > 1 && !secondByteFits(lead, static_cast<unsigned char>(bytes[position + 1]))) {
            return false;
        }
        for (std::size_t next = 2; next < length; ++next) {
            if (!isContinuation(static_cast<unsigned char>(bytes[position + next]))) {
                return false;
            }
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
