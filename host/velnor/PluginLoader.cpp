#include "PluginLoader.h"

#include <dlfcn.h>

namespace velnor::host {
namespace {

using DescriptorFunction = const PluginDescriptor* (*)();

// The problem with one operation of the table, or nothing.
std::optional<std::string> operationProblem(const HostOperation& operation, std::size_t index) {
    if (operation.name == nullptr || *operation.name == '\0') {
        return "operation " + std::to_string(index) + " has no name";
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
        return std::string("operation ") + operation.name +
               " has no function for its style, or an unknown style";
    }
    return std::nullopt;
}

std::string lastLoaderError() {
    const char* error = dlerror();
    return error != nullptr ? error : "unknown error";
}

}  // namespace

std::string choosePluginPath(const std::optional<std::string>& option, const char* environment,
                             const std::string& installed, const std::string& buildTree,
                             const std::function<bool(const std::string&)>& exists) {
    if (option) {
        return *option;
    }
    if (environment != nullptr && *environment != '\0') {
        return environment;
    }
    return exists(installed) ? installed : buildTree;
}

std::optional<std::string> descriptorProblem(const PluginDescriptor& descriptor) {
    if (descriptor.interfaceVersion != kPluginInterfaceVersion) {
        return "it speaks plug-in interface version " +
               std::to_string(descriptor.interfaceVersion) + ", this host speaks version " +
               std::to_string(kPluginInterfaceVersion);
    }
    if (descriptor.initialize == nullptr || descriptor.createHandler == nullptr) {
        return std::string("its descriptor lacks initialize or createHandler");
    }
    if (descriptor.operations == nullptr && descriptor.operationCount != 0) {
        return std::string("its descriptor counts operations but has no table");
    }
    for (std::size_t index = 0; index < descriptor.operationCount; ++index) {
        if (auto problem = operationProblem(descriptor.operations[index], index)) {
            return problem;
        }
    }
    return std::nullopt;
}

const HostOperation* findOperation(const PluginDescriptor& descriptor, std::string_view name) {
    for (std::size_t index = 0; index < descriptor.operationCount; ++index) {
        if (name == descriptor.operations[index].name) {
            return &descriptor.operations[index];
        }
    }
    return nullptr;
}

std::unique_ptr<PluginModule> PluginModule::open(const std::string& path, std::string* error) {
    // RTLD_NOW: an unresolved symbol is a load failure here, not a crash in mid-operation.
    // RTLD_LOCAL: the plug-in's own symbols stay its own.
    // A name without a slash would send the loader searching the library path; the user
    // means the file in the current folder.
    std::string file = path.find('/') == std::string::npos ? "./" + path : path;
    void* handle = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        *error = "cannot load plug-in " + path + ": " + lastLoaderError();
        return nullptr;
    }
    auto fail = [&](std::string why) {
        *error = "cannot use plug-in " + path + ": " + why;
        dlclose(handle);
        return nullptr;
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
    if (auto problem = descriptorProblem(*descriptor)) {
        return fail(*problem);
    }
    return std::unique_ptr<PluginModule>(new PluginModule(handle, descriptor));
}

PluginModule::~PluginModule() {
    dlclose(handle_);
}

}  // namespace velnor::host
