// Reading and writing the whole of what a descriptor holds, through short reads and writes and
// interruptions.
#pragma once

#include <string>
#include <string_view>

namespace velnor::support {

// Reads until the end of file. False, with errno set by the read that failed, on failure; what
// was read so far is then in contents.
bool readAll(int descriptor, std::string& contents);

// Writes all of contents. False, with errno set by the write that failed, on failure.
bool writeAll(int descriptor, std::string_view contents);

}  // namespace velnor::support
