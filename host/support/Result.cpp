#include "Result.h"

#include <cstring>

namespace velnor::support {

std::string systemReason(int error) {
    char buffer[256];
    // The GNU strerror_r returns the text, which need not be in buffer.
    return strerror_r(error, buffer, sizeof buffer);
}

Failure couldNot(std::string_view verb, std::string_view object, int error) {
    return couldNot(verb, object, systemReason(error), error);
}

Failure couldNot(std::string_view verb, std::string_view object, std::string_view reason,
                 int error) {
    std::string message = "could not ";
    message.append(verb).append(" \"").append(object).append("\": ").append(reason);
    return {error, std::move(message)};
}

}  // namespace velnor::support
