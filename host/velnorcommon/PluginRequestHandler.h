// The base class of every service plug-in's request handler.
#pragma once

#include "Export.h"
#include "PlistValue.h"

namespace velnor {

class VELNOR_EXPORT PluginRequestHandler {
  public:
    PluginRequestHandler() = default;
    virtual ~PluginRequestHandler() = default;

    PluginRequestHandler(const PluginRequestHandler&) = delete;
    PluginRequestHandler& operator=(const PluginRequestHandler&) = delete;

    // The error response for an error code: the dictionary {"error": code}.
    PlistDictionary responseForError(const char* code) const;
};

}  // namespace velnor
