// A plug-in module with fixed, observable answers, so that the host can be run for real without
// the database service: each kind of response, a throw, the environment it sees, and a process
// it leaves running. Every operation logs its name, which is how a test sees that it ran.
#include <fcntl.h>
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

int initializeCount = 0;

void initialize() {
    ++initializeCount;
    syslog(LOG_NOTICE, "velnor_test_plugin: initialize");
}

std::unique_ptr<PluginRequestHandler> createHandler() {
    return std::make_unique<PluginRequestHandler>();
}

void logCall(const char* operation) {
    syslog(LOG_NOTICE, "velnor_test_plugin: %s called", operation);
}

// The request as it arrived, so that tests can see what the host made of its command line.
template <const char* kName>
PlistDictionary echo(PluginRequestHandler&, const PlistDictionary& request) {
    logCall(kName);
    PlistDictionary response;
    response.set("operation", kName);
    response.set("request", PlistValue(request));
    response.set("initializeCount", PlistValue::integer(initializeCount));
    return response;
}

PlistDictionary types(PluginRequestHandler&, const PlistDictionary&) {
    logCall("typesWithRequest");
    PlistDictionary response;
    response.set("zero", PlistValue::integer(0));
    response.set("no", PlistValue::boolean(false));
    response.set("text", "Grüße \"quoted\"\n");
    response.set("list", PlistValue(velnor::PlistArray{PlistValue::integer(1), "two"}));
    return response;
}

PlistDictionary error(PluginRequestHandler& handler, const PlistDictionary&) {
    logCall("errorWithRequest");
    return handler.responseForError("TEST_PLUGIN_ERR");
}

PlistDictionary throwRange(PluginRequestHandler&, const PlistDictionary&) {
    logCall("throwWithRequest");
    throw std::out_of_range("no element 3");
}

PlistDictionary environment(PluginRequestHandler&, const PlistDictionary&) {
    logCall("environmentWithRequest");
    PlistDictionary response;
    if (const char* host = std::getenv("PGHOST")) {
        response.set("PGHOST", host);
    }
    return response;
}

PlistDictionary logMessage(PluginRequestHandler&, const PlistDictionary& request) {
    const PlistValue* message = request.find("message");
    syslog(LOG_WARNING, "velnor_test_plugin: %s",
           message && message->asString() ? message->asString()->c_str() : "(no message)");
    return {};
}

// Starts a process that outlives the host, as launchd's job start does with the server.
PlistDictionary spawnSleeper(PluginRequestHandler&, const PlistDictionary&) {
    logCall("spawnWithRequest");
    pid_t pid = 0;
    char program[] = "/bin/sleep";
    char seconds[] = "120";
    char* arguments[] = {program, seconds, nullptr};
    // Like a detached job, it keeps none of the host's standard streams: the test reading the
    // host's output to its end must not wait for this process too.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int descriptor : {0, 1, 2}) {
        posix_spawn_file_actions_addopen(&actions, descriptor, "/dev/null", O_RDWR, 0);
    }
    PlistDictionary response;
    if (posix_spawn(&pid, program, &actions, nullptr, arguments, environ) == 0) {
        response.set("pid", PlistValue::integer(pid));
    }
    posix_spawn_file_actions_destroy(&actions);
    return response;
}

template <const char* kName>
std::optional<PlistDictionary> service(PluginRequestHandler& handler, const PlistValue& variant) {
    const std::string* text = variant.asString();
    syslog(LOG_NOTICE, "velnor_test_plugin: %s variant=%s", kName,
           text ? text->c_str() : "(absent)");
    if (text && *text == "fail") {
        return handler.responseForError("CANNOT_START_SERVICE_ERR");
    }
    return std::nullopt;
}

std::intptr_t idle(PluginRequestHandler&, std::int32_t count) {
    logCall("doIdleAtCount");
    return count;
}

constexpr char kGetState[] = "getStateWithRequest";
constexpr char kReadSettings[] = "readSettingsWithRequest";
constexpr char kWriteSettings[] = "writeSettingsWithRequest";
constexpr char kEcho[] = "echoWithRequest";
constexpr char kStart[] = "startServiceWithVariant";
constexpr char kStop[] = "stopServiceWithVariant";
constexpr char kRecycle[] = "recycleServiceWithVariant";

HostOperation request(const char* name,
                      PlistDictionary (*function)(PluginRequestHandler&, const PlistDictionary&)) {
    return {name, OperationStyle::Request, function, nullptr, nullptr};
}

template <const char* kName>
HostOperation serviceOperation() {
    return {kName, OperationStyle::Service, nullptr, &service<kName>, nullptr};
}

const HostOperation kOperations[] = {
    request(kGetState, &echo<kGetState>),
    request(kReadSettings, &echo<kReadSettings>),
    request(kWriteSettings, &echo<kWriteSettings>),
    request(kEcho, &echo<kEcho>),
    request("typesWithRequest", &types),
    request("errorWithRequest", &error),
    request("throwWithRequest", &throwRange),
    request("environmentWithRequest", &environment),
    request("logWithRequest", &logMessage),
    request("spawnWithRequest", &spawnSleeper),
    serviceOperation<kStart>(),
    serviceOperation<kStop>(),
    serviceOperation<kRecycle>(),
    {"doIdleAtCount", OperationStyle::Idle, nullptr, nullptr, &idle},
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
