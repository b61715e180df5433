// A plug-in module with fixed, observable answers, so that the host can be run for real without
// the database service. It logs its class hook and every call, which is how a test sees what ran.
#include <spawn.h>
#include <syslog.h>

#include <cstdlib>
#include <stdexcept>

#include "PluginInterface.h"

#ifndef TEST_PLUGIN_INTERFACE_VERSION
#define TEST_PLUGIN_INTERFACE_VERSION velnor::kPluginInterfaceVersion
#endif

extern char** environ;

namespace {

using velnor::HostOperation;
using velnor::OperationStyle;
using velnor::PlistDictionary;
using velnor::PlistValue;
using velnor::PluginRequestHandler;

void initialize() {
    syslog(LOG_NOTICE, "velnor_test_plugin: initialize");
}

std::unique_ptr<PluginRequestHandler> createHandler() {
    return std::make_unique<PluginRequestHandler>();
}

void logCall(const char* operation) {
    syslog(LOG_NOTICE, "velnor_test_plugin: called %s", operation);
}

// The request as it arrived, so that tests see what the host read.
PlistDictionary echo(PluginRequestHandler&, const PlistDictionary& request) {
    logCall("echoWithRequest");
    return request;
}

// Kinds that a careless printer confuses, a string that needs escaping, and the database
// socket folder that the plug-in sees.
PlistDictionary types(PluginRequestHandler&, const PlistDictionary&) {
    logCall("typesWithRequest");
    PlistDictionary response;
    response.set("zero", PlistValue::integer(0));
    response.set("no", PlistValue::boolean(false));
    response.set("text", "Grüße \"quoted\"\n");
    if (const char* host = std::getenv("PGHOST")) {
        response.set("PGHOST", host);
    }
    return response;
}

PlistDictionary throwRange(PluginRequestHandler&, const PlistDictionary&) {
    logCall("throwWithRequest");
    throw std::out_of_range("no element 3");
}

// Starts a process that outlives the host, as launchd's job start does with the server.
PlistDictionary spawnSleeper(PluginRequestHandler&, const PlistDictionary&) {
    pid_t pid = 0;
    char program[] = "/bin/sleep";
    char seconds[] = "120";
    char* arguments[] = {program, seconds, nullptr};
    PlistDictionary response;
    if (posix_spawn(&pid, program, nullptr, nullptr, arguments, environ) == 0) {
        response.set("pid", PlistValue::integer(pid));
    }
    return response;
}

// No response, or an error response for the variant "fail".
std::optional<PlistDictionary> stop(PluginRequestHandler& handler, const PlistValue& variant) {
    logCall("stopServiceWithVariant");
    const std::string* text = variant.asString();
    if (text && *text == "fail") {
        return handler.responseForError("CANNOT_STOP_SERVICE_ERR");
    }
    return std::nullopt;
}

const HostOperation kOperations[] = {
    {"echoWithRequest", OperationStyle::Request, &echo, nullptr, nullptr},
    {"typesWithRequest", OperationStyle::Request, &types, nullptr, nullptr},
    {"throwWithRequest", OperationStyle::Request, &throwRange, nullptr, nullptr},
    {"spawnWithRequest", OperationStyle::Request, &spawnSleeper, nullptr, nullptr},
    {"stopServiceWithVariant", OperationStyle::Service, nullptr, &stop, nullptr},
};

}  // namespace

extern "C" __attribute__((visibility("default"))) const velnor::PluginDescriptor*
VelnorPluginDescriptor() {
    static const velnor::PluginDescriptor descriptor = {
        TEST_PLUGIN_INTERFACE_VERSION,
        "velnor_test_plugin",
        &initialize,
        &createHandler,
        kOperations,
        std::size(kOperations),
    };
    return &descriptor;
}
