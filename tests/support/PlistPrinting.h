// Readable test failures for property-list values: {"key": <integer>0, ...}.
#pragma once

#include <ostream>

#include "PlistValue.h"

namespace velnor {

void PrintTo(const PlistValue& value, std::ostream* out);
void PrintTo(const PlistDictionary& dictionary, std::ostream* out);

}  // namespace velnor
