// How the host finds a plug-in's handler and its operations.
//
// A plug-in module exports one C function, VelnorPluginDescriptor, that describes the plug-in:
// its class-level hook, how to create its handler, and the table of operations that the host
// may call by name. The host never links a plug-in; it opens the module at run time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "PlistValue.h"
#include "PluginRequestHandler.h"

namespace velnor {

// Bumped whenever the layout of PluginDescriptor or HostOperation changes.
inline constexpr std::uint32_t kPluginInterfaceVersion = 1;

// What an operation takes from the host, and so how it is called.
enum class OperationStyle {
    Request,  // takes a request dictionary, answers a response dictionary
    Service,  // takes a variant (a string or absent), answers an error response or nothing
    Idle,     // takes a count, answers an integer
};

struct HostOperation {
    const char* name;
    OperationStyle style;
    // Exactly the member that matches style is set.
    PlistDictionary (*request)(PluginRequestHandler& handler, const PlistDictionary& request);
    std::optional<PlistDictionary> (*service)(PluginRequestHandler& handler,
                                              const PlistValue& variant);
    std::intptr_t (*idle)(PluginRequestHandler& handler, std::int32_t count);
};

struct PluginDescriptor {
    std::uint32_t interfaceVersion;
    const char* name;
    // Run once by the host before the handler class is first used.
    void (*initialize)();
    std::unique_ptr<PluginRequestHandler> (*createHandler)();
    const HostOperation* operations;
    std::size_t operationCount;
};

}  // namespace velnor

// The one symbol the host looks up in a plug-in module.
#define VELNOR_PLUGIN_DESCRIPTOR_SYMBOL "VelnorPluginDescriptor"
extern "C" const velnor::PluginDescriptor* VelnorPluginDescriptor();
