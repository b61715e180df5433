// How the host checks a plug-in's descriptor and runs its operations, against a descriptor
// built here instead of a loaded module.
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
PlistDictionary throwRange(PluginRequestHandler&, const PlistDictionary&) {
    std::vector<std::string> arguments;
    static_cast<void>(arguments.at(3));
    return {};
}
PlistDictionary throwOddity(PluginRequestHandler&, const PlistDictionary&) {
    throw NotAnException{};
}
PlistDictionary throwInteger(PluginRequestHandler&, const PlistDictionary&) {
    throw 7;
}
std::intptr_t idleTwice(PluginRequestHandler&, std::int32_t count) {
    return 2 * count;
}

const HostOperation kOperations[] = {
    {"answerWithRequest", OperationStyle::Request, &answer, nullptr, nullptr},
    {"throwRangeWithRequest", OperationStyle::Request, &throwRange, nullptr, nullptr},
    {"throwOddityWithRequest", OperationStyle::Request, &throwOddity, nullptr, nullptr},
    {"throwIntegerWithRequest", OperationStyle::Request, &throwInteger, nullptr, nullptr},
    {"doIdleAtCount", OperationStyle::Idle, nullptr, nullptr, &idleTwice},
};

PluginDescriptor descriptor() {
    return {kPluginInterfaceVersion, "test",      &initialize,
            &createHandler,          kOperations, std::size(kOperations)};
}

Outcome run(const char* name, OperationArgument argument,
            const PluginDescriptor& plugin = descriptor()) {
    const HostOperation* operation = findOperation(plugin, name);
    EXPECT_NE(operation, nullptr) << name;
    return operation ? runOperation(plugin, *operation, argument) : Outcome{};
}

TEST(HostInvocation, WhateverThePluginThrowsIsNamedNotFatal) {
    Outcome range = run("throwRangeWithRequest", PlistDictionary());
    EXPECT_FALSE(range.answered);
    EXPECT_TRUE(range.failure.starts_with("std::out_of_range: ")) << range.failure;
    EXPECT_EQ(exitStatusFor(range), kExitWithoutResponse);

    Outcome oddity = run("throwOddityWithRequest", PlistDictionary());
    EXPECT_FALSE(oddity.answered);
    EXPECT_NE(oddity.failure.find("NotAnException"), std::string::npos) << oddity.failure;

    EXPECT_EQ(run("throwIntegerWithRequest", PlistDictionary()).failure, "int");
}

TEST(HostInvocation, FailuresBeforeTheCallEndWithoutAResponse) {
    PluginDescriptor throwing = descriptor();
    throwing.initialize = &throwingInitialize;
    Outcome failedHook = run("answerWithRequest", PlistDictionary(), throwing);
    EXPECT_FALSE(failedHook.answered);
    EXPECT_EQ(failedHook.failure, "std::runtime_error: no set-up today");

    PluginDescriptor handlerless = descriptor();
    handlerless.createHandler = &createNoHandler;
    Outcome noHandler = run("answerWithRequest", PlistDictionary(), handlerless);
    EXPECT_FALSE(noHandler.answered);
    EXPECT_EQ(exitStatusFor(noHandler), kExitWithoutResponse);
}

TEST(HostInvocation, IdleResultIsAnInteger) {
    Outcome idle = run("doIdleAtCount", std::int32_t{21});
    EXPECT_EQ(idle.result, PlistValue::integer(42));
    EXPECT_EQ(exitStatusFor(idle), kExitNormal);
}

TEST(HostPluginDescriptor, OnlyAUsableDescriptorPasses) {
    EXPECT_EQ(descriptorProblem(descriptor()), std::nullopt);

    PluginDescriptor newer = descriptor();
    newer.interfaceVersion = kPluginInterfaceVersion + 1;
    EXPECT_NE(descriptorProblem(newer).value_or("").find("interface version"), std::string::npos);

    PluginDescriptor hookless = descriptor();
    hookless.createHandler = nullptr;
    EXPECT_TRUE(descriptorProblem(hookless).has_value());

    const HostOperation mismatched[] = {
        {"startServiceWithVariant", OperationStyle::Service, &answer, nullptr, nullptr}};
    PluginDescriptor wrongStyle = descriptor();
    wrongStyle.operations = mismatched;
    wrongStyle.operationCount = 1;
    EXPECT_NE(descriptorProblem(wrongStyle).value_or("").find("startServiceWithVariant"),
              std::string::npos);

    const HostOperation nameless[] = {
        {nullptr, OperationStyle::Idle, nullptr, nullptr, &idleTwice}};
    PluginDescriptor noName = descriptor();
    noName.operations = nameless;
    noName.operationCount = 1;
    EXPECT_TRUE(descriptorProblem(noName).has_value());

    PluginDescriptor noTable = descriptor();
    noTable.operations = nullptr;
    EXPECT_TRUE(descriptorProblem(noTable).has_value());
}

}  // namespace
}  // namespace velnor::host
