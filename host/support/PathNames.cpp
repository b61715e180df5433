#include "PathNames.h"

namespace velnor::support {
namespace {

std::string_view withoutTrailingSlashes(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') {
        path.remove_suffix(1);
    }
    return path;
}

}  // namespace

std::string folderOf(std::string_view path) {
    path = withoutTrailingSlashes(path);
    const auto slash = path.find_last_of('/');
    if (slash == std::string_view::npos) {
        return ".";
    }
    if (slash == 0) {
        return "/";
    }
    return std::string(withoutTrailingSlashes(path.substr(0, slash)));
}

std::string lastNameOf(std::string_view path) {
    path = withoutTrailingSlashes(path);
    const auto slash = path.find_last_of('/');
    if (slash == std::string_view::npos || path.size() == 1) {
        return std::string(path);
    }
    return std::string(path.substr(slash + 1));
}

std::string joinedPath(std::string_view folder, std::string_view name) {
    std::string path(folder);
    if (path.empty() || path.back() != '/') {
        path += '/';
    }
    return path.append(name);
}

}  // namespace velnor::support
