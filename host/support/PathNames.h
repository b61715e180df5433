// Taking a path apart by its names, without looking at the file system.
#pragma once

#include <string>
#include <string_view>

namespace velnor::support {

// The folder that holds path's last name: "." for a bare name, "/" at the top. Slashes at the
// end of path, or of the folder, do not count.
std::string folderOf(std::string_view path);

// The last name of path ("c" of "/a/b/c/"), or the path itself when it has no other.
std::string lastNameOf(std::string_view path);

// folder and name joined by one slash.
std::string joinedPath(std::string_view folder, std::string_view name);

}  // namespace velnor::support
