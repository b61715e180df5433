#include "PluginLoader.h"

#include <dlfcn.h>

#include <cerrno>
#include <filesystem>

namespace velnor::host {
namespace {

using DescriptorFunction = const PluginDescriptor* (*)();

// A failure whose message is the reason alone, for the caller to put after the module's path.
support::Failure unusable(std::string reason) {
    return {EINVAL, std::move(reason)};
}

// Fails when one operation of the table cannot be called.
support::Status checkOperation(const HostOperation& operation, std::size_t index) {
    if (operation.name == nullptr || *operation.name == '\0') {
        return unusable("operation " + std::to_string(index) + " has no name");
    }
    bool callable = false;
    switch (operation.style) {
        case OperationStyle::Request:
            callable = operation.request != nullptr;
            break;
        case OperationStyle::Service:
            callable = operation.service != nullptr;
            break;
        case OperationStyle::Idle:
            callable = operation.idle != nullptr;
            break;
    }
    if (!callable) {
        return unusable(std::string("operation ") + operation.name +
                        " has no function for its style, or an unknown style");
    }
    return {};
}

std::string lastLoaderError() {
    const char* error = dlerror();
    return error != nullptr ? error : "unknown error";
}

}  // namespace

std::string choosePluginPath(const std::optional<std::string>& option, const char* environment,
                             std::string_view fromProgramFolder) {
    if (option) {
        return *option;
    }
    if (environment != nullptr && *environment != '\0') {
        return environment;
    }
    return bundledPluginPath(fromProgramFolder);
}

std::string bundledPluginPath(std::string_view fromProgramFolder) {
    std::error_code error;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) {
        return {};
    }
    return (program.parent_path() / fromProgramFolder).lexically_normal();
}

support::Status checkDescriptor(const PluginDescriptor& descriptor) {
    if (descriptor.interfaceVersion != kPluginInterfaceVersion) {
        return unusable("it speaks plug-in interface version " +
                        std::to_string(descriptor.interfaceVersion) +
                        ", this host speaks version " + std::to_string(kPluginInterfaceVersion));
    }
    if (descriptor.initialize == nullptr || descriptor.createHandler == nullptr) {
        return unusable("its descriptor lacks initialize or createHandler");
    }
    if (descriptor.operations == nullptr && descriptor.operationCount != 0) {
        return unusable("its descriptor counts operations but has no table");
    }
    for (std::size_t index = 0; index < descriptor.operationCount; ++index) {
        if (auto checked = checkOperation(descriptor.operations[index], index); !checked) {
            return checked;
        }
    }
    return {};
}

const HostOperation* findOperation(const PluginDescriptor& descriptor, std::string_view name) {
    for (std::size_t index = 0; index < descriptor.operationCount; ++index) {
        if (name == descriptor.operations[index].name) {
            return &descriptor.operations[index];
        }
    }
    return nullptr;
}

support::Result<std::unique_ptr<PluginModule>> PluginModule::open(const std::string& path) {
    // RTLD_NOW: an unresolved symbol is a load failure here, not a crash in mid-operation.
    // RTLD_LOCAL: the plug-in's own symbols stay its own.
    // A name without a slash would send the loader searching the library path; the user
    // means the file in the current folder.
    std::string file = path.find('/') == std::string::npos ? "./" + path : path;
    void* handle = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        return support::couldNot("load plug-in", path, lastLoaderError());
    }
    auto fail = [&](const std::string& why) {
        dlclose(handle);
        return support::couldNot("use plug-in", path, why, EINVAL);
    };
    dlerror();
    void* symbol = dlsym(handle, VELNOR_PLUGIN_DESCRIPTOR_SYMBOL);
    if (symbol == nullptr) {
        return fail("it has no " VELNOR_PLUGIN_DESCRIPTOR_SYMBOL " (" + lastLoaderError() + ")");
    }
    const PluginDescriptor* descriptor = reinterpret_cast<DescriptorFunction>(symbol)();
    if (descriptor == nullptr) {
        return fail(VELNOR_PLUGIN_DESCRIPTOR_SYMBOL " answered no descriptor");
    }
    if (auto checked = checkDescriptor(*descriptor); !checked) {
        return fail(checked.message());
    }
    return std::unique_ptr<PluginModule>(new PluginModule(handle, descriptor));
}

PluginModule::~PluginModule() {
    dlclose(handle_);
}

}  // namespace velnor::host
