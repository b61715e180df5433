#include "handler/OperationTable.h"

#include "handler/PostgresRequestHandler.h"

namespace velnor::postgres {
namespace {

PostgresRequestHandler& postgres(PluginRequestHandler& handler) {
    return static_cast<PostgresRequestHandler&>(handler);
}

template <PlistDictionary (PostgresRequestHandler::*operation)(const PlistDictionary&)>
HostOperation requestOperation(const char* name) {
    return {name, OperationStyle::Request,
            [](PluginRequestHandler& handler, const PlistDictionary& request) {
                return (postgres(handler).*operation)(request);
            },
            nullptr, nullptr};
}

template <std::optional<PlistDictionary> (PostgresRequestHandler::*operation)(const PlistValue&)>
HostOperation serviceOperation(const char* name) {
    return {name, OperationStyle::Service, nullptr,
            [](PluginRequestHandler& handler, const PlistValue& variant) {
                return (postgres(handler).*operation)(variant);
            },
            nullptr};
}

using Handler = PostgresRequestHandler;

const HostOperation kHostOperations[] = {
    requestOperation<&Handler::initialSetupWithRequest>("initialSetupWithRequest"),
    requestOperation<&Handler::writeSettingsWithRequest>("writeSettingsWithRequest"),
    requestOperation<&Handler::readSettingsWithRequest>("readSettingsWithRequest"),
    serviceOperation<&Handler::recycleServiceWithVariant>("recycleServiceWithVariant"),
    serviceOperation<&Handler::stopServiceWithVariant>("stopServiceWithVariant"),
    serviceOperation<&Handler::startServiceWithVariant>("startServiceWithVariant"),
    requestOperation<&Handler::getLogPathsWithRequest>("getLogPathsWithRequest"),
    requestOperation<&Handler::getStateWithRequest>("getStateWithRequest"),
    {"doIdleAtCount", OperationStyle::Idle, nullptr, nullptr,
     [](PluginRequestHandler& handler, std::int32_t count) {
         return postgres(handler).doIdleAtCount(count);
     }},
};

}  // namespace

std::span<const HostOperation> hostOperations() {
    return kHostOperations;
}

}  // namespace velnor::postgres
