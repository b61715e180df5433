// A request that the plug-in cannot act on: a value of the wrong kind where one kind is
// expected. It is thrown before the operation changes anything, and the host reports it as an
// operation that ended without a response.
#pragma once

#include <stdexcept>
#include <string>

#include "PlistValue.h"

namespace velnor::postgres {

class RequestError : public std::invalid_argument {
  public:
    using std::invalid_argument::invalid_argument;
};

// Throws RequestError when the value is present and not of the expected kind: "KEY must be a
// EXPECTED, not a KIND".
void requireKindOrAbsent(const PlistValue* value, PlistValue::Kind expected,
                         const std::string& what);

}  // namespace velnor::postgres
