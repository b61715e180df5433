#include "PluginRequestHandler.h"

namespace velnor {

PlistDictionary PluginRequestHandler::responseForError(const char* code) const {
    PlistDictionary response;
    response.set("error", PlistValue(code));
    return response;
}

}  // namespace velnor
