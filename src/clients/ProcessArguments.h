// Reading a process's argument area, as the process-arguments query lays it out: the argument
// count as a 32-bit integer, the executable path, zero padding, then the argument strings and
// the environment strings, each ending in a zero byte.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace velnor::postgres {

// True when the bytes are well-formed UTF-8 (no overlong forms, surrogates or values past
// U+10FFFF).
bool isValidUtf8(std::string_view bytes);

// The non-empty, valid UTF-8 zero-terminated pieces of the first length bytes of buffer, in
// order. The count's bytes give the first piece (one character for a count of 1 to 127, none
// for 128 to 255, whose byte is not UTF-8). A last piece without a zero byte within length is
// read on into the rest of the buffer, up to its first zero byte or the buffer's end.
std::vector<std::string> cutArgumentBuffer(std::span<const char> buffer, std::size_t length);

}  // namespace velnor::postgres
