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

Outcome run(const PluginDescriptor& plugin, const char* name) {
    return runOperation(plugin, *findOperation(plugin, name), PlistDictionary());
}

TEST(HostInvocation, WhateverThePluginThrowsEndsWithoutAResponseNotTheHost) {
    Outcome oddity = run(descriptor(), "throwOddityWithRequest");
    EXPECT_FALSE(oddity.answered);
    EXPECT_NE(oddity.failure.find("NotAnException"), std::string::npos) << oddity.failure;
    EXPECT_EQ(exitStatusFor(oddity), kExitWithoutResponse);

    Outcome failedHook = run(descriptor(&throwingInitialize), "answerWithRequest");
    EXPECT_FALSE(failedHook.answered);
    EXPECT_EQ(failedHook.failure, "std::runtime_error: no set-up today");

    Outcome noHandler = run(descriptor(&initialize, &createNoHandler), "answerWithRequest");
    EXPECT_FALSE(noHandler.answered);
    EXPECT_EQ(exitStatusFor(noHandler), kExitWithoutResponse);
}

TEST(HostPluginDescriptor, OperationsThatCannotBeCalledAreRefused) {
    EXPECT_EQ(descriptorProblem(descriptor()), std::nullopt);
    const HostOperation mismatched[] = {
        {"startServiceWithVariant", OperationStyle::Service, &answer, nullptr, nullptr}};
    const HostOperation nameless[] = {
        {nullptr, OperationStyle::Request, &answer, nullptr, nullptr}};
    PluginDescriptor wrongStyle = descriptor();
    wrongStyle.operations = mismatched;
    wrongStyle.operationCount = 1;
    EXPECT_NE(descriptorProblem(wrongStyle).value_or("").find("startServiceWithVariant"),
              std::string::npos);
    PluginDescriptor noName = wrongStyle;
    noName.operations = nameless;
    EXPECT_TRUE(descriptorProblem(noName).has_value());
    PluginDescriptor noTable = descriptor();
    noTable.operations = nullptr;
    EXPECT_TRUE(descriptorProblem(noTable).has_value());
}

}  // namespace
}  // namespace velnor::host
