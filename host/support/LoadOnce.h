// A shared library loaded the first time a program needs it, and again at each later need while
// it cannot be, so that installing it needs no restart; once loaded it stays loaded. Its
// functions are found by name, so a program that never needs the library never pays for it.
#pragma once

#include <dlfcn.h>

#include <mutex>
#include <optional>
#include <utility>

#include "Result.h"

namespace velnor::support {

// The handle of the shared library named, opened for good: it is never closed, so that the
// functions found in it stay valid for the process's life. Fails with the dynamic linker's
// reason.
inline Result<void*> openLibrary(const char* name) {
    void* library = dlopen(name, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* error = dlerror();
        return couldNot("load", name, error != nullptr ? error : "unknown error");
    }
    return library;
}

// The functions of one library, as Loader finds them, loaded at most once with success.
template <typename Functions>
class LoadOnce {
  public:
    using Loader = Result<Functions> (*)();

    explicit LoadOnce(Loader load) : load_(load) {}

    // The functions, loaded by this call unless an earlier one loaded them; else why this
    // call's attempt failed.
    Result<const Functions*> get() {
        std::lock_guard lock(mutex_);
        if (!loaded_) {
            Result<Functions> functions = load_();
            if (!functions) {
                return functions.failure();
            }
            loaded_.emplace(std::move(*functions));
        }
        return &*loaded_;
    }

  private:
    Loader load_;
    std::mutex mutex_;
    std::optional<Functions> loaded_;
};

}  // namespace velnor::support
