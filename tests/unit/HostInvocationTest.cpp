// How the host checks a plug-in's descriptor and survives what its operations do, against a
// descriptor built here instead of a loaded module.
#include <gtest/gtest.h>

#include <stdexcept>

#include "ExitStatus.h"
#include "Invocation.h"
#include "PluginLoader.h"

namespace velnor::host {
namespace {

struct NotAnException {};

void initialize() {}
void throwingInitialize() {
    throw std::runtime_error("no set-up today");
}
std::unique_ptr<PluginRequestHandler> createHandler() {
    return std::make_unique<PluginRequestHandler>();
}
std::unique_ptr<PluginRequestHandler> createNoHandler() {
    return nullptr;
}
PlistDictionary answer(PluginRequestHandler&, const PlistDictionary&) {
    return {};
}
PlistDictionary throwOddity(PluginRequestHandler&, const PlistDictionary&) {
    throw NotAnException{};
}

const HostOperation kOperations[] = {
    {"answerWithRequest", OperationStyle::Request, &answer, nullptr, nullptr},
    {"throwOddityWithRequest", OperationStyle::Request, &throwOddity, nullptr, nullptr},
};

PluginDescriptor descriptor(void (*initializeHook)() = &initialize,
                            std::unique_ptr<PluginRequestHandler> (*create)() = &createHandler) {
    return {kPluginInterfaceVersion, "test", initializeHook, create, kOperations, 2};
}

TEST(HostInvocation, WhateverThePluginThrowsEndsWithoutAResponseNotTheHost) {
    const std::pair<PluginDescriptor, const char*> cases[] = {
        {descriptor(), "NotAnException"},
        {descriptor(&throwingInitialize), "std::runtime_error: no set-up today"},
        {descriptor(&initialize, &createNoHandler), ""},
    };
    for (const auto& [plugin, failure] : cases) {
        const char* name = failure[0] == 'N' ? "throwOddityWithRequest" : "answerWithRequest";
        Outcome outcome = runOperation(plugin, *findOperation(plugin, name), PlistDictionary());
        EXPECT_FALSE(outcome.answered) << failure;
        EXPECT_NE(outcome.failure.find(failure), std::string::npos) << outcome.failure;
        EXPECT_EQ(exitStatusFor(outcome), kExitWithoutResponse);
    }
}

TEST(HostPluginDescriptor, OperationsThatCannotBeCalledAreRefused) {
    EXPECT_TRUE(checkDescriptor(descriptor()).ok());
    const HostOperation mismatched[] = {
        {"startServiceWithVariant", OperationStyle::Service, &answer, nullptr, nullptr}};
    PluginDescriptor wrongStyle = descriptor(), otherVersion = descriptor();
    wrongStyle.operations = mismatched;
    wrongStyle.operationCount = 1;
    ++otherVersion.interfaceVersion;
    EXPECT_NE(checkDescriptor(wrongStyle).message().find("startServiceWithVariant"),
              std::string::npos);
    EXPECT_NE(checkDescriptor(otherVersion).message().find("interface version"), std::string::npos);
}

}  // namespace
}  // namespace velnor::host
