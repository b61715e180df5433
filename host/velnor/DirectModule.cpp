#include "DirectModule.h"

#include <dlfcn.h>

#include "Conclusion.h"
#include "ExitStatus.h"
#include "PluginLoader.h"

namespace velnor::host {

int runThroughDirectModule(std::string_view fromProgramFolder, int argc, char** argv) {
    const std::string path = bundledPath(kDirectModuleName, fromProgramFolder);
    // RTLD_LOCAL: the module's C++ runtime and library stay its own and never bind to the
    // program's static copies, nor the program's to them.
    void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        const char* error = dlerror();
        complain(support::couldNot("load the in-process host", path,
                                   error != nullptr ? error : "unknown error")
                     .message);
        return kExitUnavailable;
    }
    auto entry = reinterpret_cast<DirectEntry>(dlsym(module, kDirectEntrySymbol));
    if (entry == nullptr) {
        complain(support::couldNot("use the in-process host", path,
                                   std::string("it has no ") + kDirectEntrySymbol)
                     .message);
        return kExitUnavailable;
    }
    // Left loaded: the run ends with the program, and what the module printed through the C
    // library's streams is flushed at exit like the program's own.
    return entry(argc, argv);
}

}  // namespace velnor::host
