// Path text helpers shared by the subsystems. They work on the text alone and never touch the
// file system.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace velnor::postgres {

// The folder joined with one more component, with exactly one "/" between them: none is added
// when the folder is empty or already ends with "/".
std::string joinPath(std::string_view folder, std::string_view component);

// The format with each "%@" replaced by the object's text, or by "(null)" when it is absent.
std::string formatWithObject(std::string_view format, const std::optional<std::string>& object);

}  // namespace velnor::postgres
