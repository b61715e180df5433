#include "Invocation.h"

#include <cxxabi.h>

#include <cstdlib>
#include <exception>
#include <memory>
#include <typeinfo>

#include "ExitStatus.h"

namespace velnor::host {
namespace {

// The type's name as the source spells it; the mangled name when it cannot be demangled.
std::string demangledName(const std::type_info* type) {
    if (type == nullptr) {
        return "unknown exception";
    }
    int status = 0;
    std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(type->name(), nullptr, nullptr, &status), &std::free);
    return status == 0 && name ? std::string(name.get()) : std::string(type->name());
}

}  // namespace

std::string describeCurrentException() {
    std::string type = demangledName(abi::__cxa_current_exception_type());
    try {
        throw;
    } catch (const std::exception& error) {
        return type + ": " + error.what();
    } catch (...) {
        return type;
    }
}

namespace {

PlistValue callOperation(const HostOperation& operation, PluginRequestHandler& handler,
                         const OperationArgument& argument) {
    switch (operation.style) {
        case OperationStyle::Request:
            return PlistValue(operation.request(handler, std::get<PlistDictionary>(argument)));
        case OperationStyle::Service: {
            std::optional<PlistDictionary> response =
                operation.service(handler, std::get<PlistValue>(argument));
            return response ? PlistValue(std::move(*response)) : PlistValue();
        }
        case OperationStyle::Idle:
            return PlistValue::integer(operation.idle(handler, std::get<std::int32_t>(argument)));
    }
    return PlistValue();
}

}  // namespace

bool argumentFitsStyle(OperationStyle style, const OperationArgument& argument) {
    switch (style) {
        case OperationStyle::Request:
            return std::holds_alternative<PlistDictionary>(argument);
        case OperationStyle::Service: {
            const PlistValue* variant = std::get_if<PlistValue>(&argument);
            return variant != nullptr && (variant->isAbsent() || variant->asString() != nullptr);
        }
        case OperationStyle::Idle:
            return std::holds_alternative<std::int32_t>(argument);
    }
    return false;
}

std::optional<std::string> initializePlugin(const PluginDescriptor& plugin) {
    try {
        plugin.initialize();
    } catch (...) {
        return describeCurrentException();
    }
    return std::nullopt;
}

Outcome callWithNewHandler(const PluginDescriptor& plugin, const HostOperation& operation,
                           const OperationArgument& argument) {
    Outcome outcome;
    try {
        std::unique_ptr<PluginRequestHandler> handler = plugin.createHandler();
        if (!handler) {
            outcome.failure = "the plug-in created no handler";
            return outcome;
        }
        outcome.result = callOperation(operation, *handler, argument);
        outcome.answered = true;
    } catch (...) {
        outcome.failure = describeCurrentException();
    }
    return outcome;
}

Outcome runOperation(const PluginDescriptor& plugin, const HostOperation& operation,
                     const OperationArgument& argument) {
    if (std::optional<std::string> failure = initializePlugin(plugin)) {
        Outcome outcome;
        outcome.failure = std::move(*failure);
        return outcome;
    }
    return callWithNewHandler(plugin, operation, argument);
}

int exitStatusFor(const Outcome& outcome) {
    if (!outcome.answered) {
        return kExitWithoutResponse;
    }
    const PlistDictionary* response = outcome.result.asDictionary();
    return response != nullptr && response->contains("error") ? kExitErrorResponse : kExitNormal;
}

}  // namespace velnor::host
