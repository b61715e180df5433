#include "handler/Log.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "handler/Constants.h"
#include "platform/SystemLog.h"

namespace velnor::postgres {

void logMessage(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    va_list measuring;
    va_copy(measuring, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, measuring);
    va_end(measuring);

    std::string text(kLogPrefix);
    if (length > 0) {
        const std::size_t prefixLength = text.size();
        text.resize(prefixLength + static_cast<std::size_t>(length) + 1);
        std::vsnprintf(text.data() + prefixLength, static_cast<std::size_t>(length) + 1, format,
                       arguments);
        text.resize(prefixLength + static_cast<std::size_t>(length));
    }
    va_end(arguments);
    platform::syslog(priority, text);
}

}  // namespace velnor::postgres
