// Finding, opening and checking the plug-in module.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "PluginInterface.h"
#include "Result.h"

namespace velnor::host {

// The module to load: the --plugin option, else the VELNOR_PLUGIN environment value (when set
// and not empty), else the module that belongs with the running program (bundledPluginPath).
std::string choosePluginPath(const std::optional<std::string>& option, const char* environment,
                             std::string_view fromProgramFolder);

// The plug-in module that belongs with the running program (/proc/self/exe): the one at
// fromProgramFolder, a path relative to the program's folder, which the build folder lays out as
// the install does. Empty when the program's own path cannot be read.
std::string bundledPluginPath(std::string_view fromProgramFolder);

// Fails, with the reason alone as its message, when the host cannot use the descriptor:
// another interface version, a missing hook, or an operation without a name or without the
// function its style calls.
support::Status checkDescriptor(const PluginDescriptor& descriptor);

// The descriptor's operation with this exact name, or nullptr.
const HostOperation* findOperation(const PluginDescriptor& descriptor, std::string_view name);

// An opened plug-in module with a usable descriptor; closing it unloads the module, so it must
// outlive every handler and value that came from it.
class PluginModule {
  public:
    // Opens the module (every symbol bound now, none shared with later modules; a path
    // without a slash is a file in the current folder) and checks its descriptor. Fails
    // when the file cannot be loaded, lacks VelnorPluginDescriptor or answers an unusable
    // descriptor.
    static support::Result<std::unique_ptr<PluginModule>> open(const std::string& path);

    ~PluginModule();
    PluginModule(const PluginModule&) = delete;
    PluginModule& operator=(const PluginModule&) = delete;

    const PluginDescriptor& descriptor() const { return *descriptor_; }

  private:
    PluginModule(void* handle, const PluginDescriptor* descriptor)
        : handle_(handle), descriptor_(descriptor) {}

    void* handle_;
    const PluginDescriptor* descriptor_;
};

}  // namespace velnor::host
