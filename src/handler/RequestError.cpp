#include "handler/RequestError.h"

namespace velnor::postgres {

void requireKindOrAbsent(const PlistValue* value, PlistValue::Kind expected,
                         const std::string& what) {
    if (value && !value->isAbsent() && value->kind() != expected) {
        throw RequestError(what + " must be a " + kindName(expected) + ", not a " +
                           kindName(value->kind()));
    }
}

}  // namespace velnor::postgres
