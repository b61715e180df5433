// The module's one exported symbol: how the host finds the handler and its operations.
#include "PluginInterface.h"
#include "handler/OperationTable.h"
#include "handler/PostgresRequestHandler.h"

namespace {

std::unique_ptr<velnor::PluginRequestHandler> createHandler() {
    return std::make_unique<velnor::postgres::PostgresRequestHandler>();
}

}  // namespace

extern "C" __attribute__((visibility("default"))) const velnor::PluginDescriptor*
VelnorPluginDescriptor() {
    static const velnor::PluginDescriptor descriptor = {
        velnor::kPluginInterfaceVersion,
        "velnor_postgres",
        &velnor::postgres::PostgresRequestHandler::initialize,
        &createHandler,
        velnor::postgres::hostOperations().data(),
        velnor::postgres::hostOperations().size(),
    };
    return &descriptor;
}
