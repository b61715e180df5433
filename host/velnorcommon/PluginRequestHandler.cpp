#include "PluginRequestHandler.h"

namespace velnor {

PlistDictionary PluginRequestHandler::responseForError(const char* code) const {
    return {{"error", PlistValue(code)}};
}

}  // namespace velnor
