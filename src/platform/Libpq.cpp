#include "platform/Libpq.h"

#include <dlfcn.h>

#include <string>

#include "HostLog.h"
#include "LoadOnce.h"
#include "Result.h"

namespace velnor::platform {
namespace {

// The library's run-time name: the interface that the header above describes.
constexpr const char* kLibpqName = "libpq.so.5";

// The few functions of the library that the probe calls.
struct LibpqFunctions {
    decltype(&PQconnectdb) connectdb = nullptr;
    decltype(&PQstatus) status = nullptr;
    decltype(&PQserverVersion) serverVersion = nullptr;
    decltype(&PQfinish) finish = nullptr;
};

// What the dynamic linker said about its last failure.
std::string lastLoadError() {
    const char* error = ::dlerror();
    return error != nullptr ? error : "unknown failure";
}

template <typename Function>
bool resolve(void* library, const char* name, Function* function) {
    *function = reinterpret_cast<Function>(::dlsym(library, name));
    return *function != nullptr;
}

support::Status resolveAll(void* library, LibpqFunctions* functions) {
    if (!resolve(library, "PQconnectdb", &functions->connectdb) ||
        !resolve(library, "PQstatus", &functions->status) ||
        !resolve(library, "PQserverVersion", &functions->serverVersion) ||
        !resolve(library, "PQfinish", &functions->finish)) {
        return support::couldNot("load", kLibpqName, lastLoadError());
    }
    return {};
}

support::Result<LibpqFunctions> loadLibpq() {
    support::Result<void*> library = support::openLibrary(kLibpqName);
    if (!library) {
        return library.failure();
    }
    LibpqFunctions functions;
    if (support::Status resolved = resolveAll(*library, &functions); !resolved) {
        return resolved.failure();
    }
    return functions;
}

// The library's functions once loaded; nothing, with the reason logged, while it cannot be. A
// failed load is tried again at the next probe, so that installing the library needs no restart.
const LibpqFunctions* libpq() {
    static support::LoadOnce<LibpqFunctions> library(loadLibpq);
    support::Result<const LibpqFunctions*> functions = library.get();
    if (!functions) {
        // Loading is the host's side of the probe: its failure is the host library's to tell.
        logHostFailure(functions.message());
        return nullptr;
    }
    return *functions;
}

}  // namespace

PGconn* pqConnectdb(const char* conninfo) {
    const LibpqFunctions* functions = libpq();
    return functions != nullptr ? functions->connectdb(conninfo) : nullptr;
}

ConnStatusType pqStatus(const PGconn* connection) {
    // Only a loaded library made the connection.
    return connection != nullptr ? libpq()->status(connection) : CONNECTION_BAD;
}

int pqServerVersion(const PGconn* connection) {
    return connection != nullptr ? libpq()->serverVersion(connection) : 0;
}

void pqFinish(PGconn* connection) {
    if (connection != nullptr) {
        libpq()->finish(connection);
    }
}

}  // namespace velnor::platform
