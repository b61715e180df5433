#include "handler/Paths.h"

namespace velnor::postgres {

std::string joinPath(std::string_view folder, std::string_view component) {
    std::string joined(folder);
    if (!joined.empty() && joined.back() != '/') {
        joined += '/';
    }
    joined += component;
    return joined;
}

std::string formatWithObject(std::string_view format, const std::optional<std::string>& object) {
    static constexpr std::string_view kPlaceholder = "%@";
    const std::string_view text = object ? std::string_view(*object) : "(null)";
    std::string formatted;
    std::size_t start = 0;
    for (auto found = format.find(kPlaceholder); found != std::string_view::npos;
         found = format.find(kPlaceholder, start)) {
        formatted.append(format.substr(start, found - start));
        formatted.append(text);
        start = found + kPlaceholder.size();
    }
    formatted.append(format.substr(start));
    return formatted;
}

}  // namespace velnor::postgres
