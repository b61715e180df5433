// How the host checks a plug-in's descriptor and runs its operations, against a descriptor
// built here instead of a loaded module.
#include <gtest/gtest.h>

#include <stdexcept>

#include "ExitStatus.h"
#include "Invocation.h"
#include "PluginLoader.h"

namespace velnor::host {
namespace {

int initializeCalls = 0;
int handlersCreated = 0;

struct NotAnException {};

void countInitialize() {
    ++initializeCalls;
}
void throwingInitialize() {
    throw std::runtime_error("no set-up today");
}

std::unique_ptr<PluginRequestHandler> createHandler() {
    ++handlersCreated;
    return std::make_unique<PluginRequestHandler>();
}
std::unique_ptr<PluginRequestHandler> createNoHandler() {
    return nullptr;
}

PlistDictionary echoRequest(PluginRequestHandler&, const PlistDictionary& request) {
    PlistDictionary response;
    response.set("request", PlistValue(request));
    response.set("status", PlistValue::integer(0));
    return response;
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
std::optional<PlistDictionary> refuseFailingVariant(PluginRequestHandler& handler,
                                                    const PlistValue& variant) {
    if (variant == PlistValue("fail")) {
        return handler.responseForError("CANNOT_START_SERVICE_ERR");
    }
    return std::nullopt;
}
std::intptr_t idleTwice(PluginRequestHandler&, std::int32_t count) {
    return 2 * count;
}

const HostOperation kOperations[] = {
    {"echoWithRequest", OperationStyle::Request, &echoRequest, nullptr, nullptr},
    {"throwRangeWithRequest", OperationStyle::Request, &throwRange, nullptr, nullptr},
    {"throwOddityWithRequest", OperationStyle::Request, &throwOddity, nullptr, nullptr},
    {"throwIntegerWithRequest", OperationStyle::Request, &throwInteger, nullptr, nullptr},
    {"startServiceWithVariant", OperationStyle::Service, nullptr, &refuseFailingVariant, nullptr},
    {"doIdleAtCount", OperationStyle::Idle, nullptr, nullptr, &idleTwice},
};

PluginDescriptor descriptor() {
    return {kPluginInterfaceVersion, "test",      &countInitialize,
            &createHandler,          kOperations, std::size(kOperations)};
}

Outcome run(const char* name, OperationArgument argument,
            const PluginDescriptor& plugin = descriptor()) {
    const HostOperation* operation = findOperation(plugin, name);
    EXPECT_NE(operation, nullptr) << name;
    return operation ? runOperation(plugin, *operation, argument) : Outcome{};
}

TEST(HostInvocation, RequestOperationAnswersAfterOneInitializeAndOneHandler) {
    initializeCalls = 0;
    handlersCreated = 0;
    PlistDictionary request;
    request.set("variant", "withDetails");
    Outcome outcome = run("echoWithRequest", request);
    ASSERT_TRUE(outcome.answered) << outcome.failure;
    PlistDictionary expected;
    expected.set("request", PlistValue(request));
    expected.set("status", PlistValue::integer(0));
    EXPECT_EQ(outcome.result, PlistValue(expected));
    EXPECT_EQ(initializeCalls, 1);
    EXPECT_EQ(handlersCreated, 1);
    EXPECT_EQ(exitStatusFor(outcome), kExitNormal);
}

TEST(HostInvocation, ExitStatusFollowsTheResponse) {
    Outcome absent = run("startServiceWithVariant", PlistValue());
    EXPECT_TRUE(absent.answered);
    EXPECT_TRUE(absent.result.isAbsent());
    EXPECT_EQ(exitStatusFor(absent), kExitNormal) << "an absent response means success";

    Outcome refused = run("startServiceWithVariant", PlistValue("fail"));
    EXPECT_EQ(exitStatusFor(refused), kExitErrorResponse);

    Outcome idle = run("doIdleAtCount", std::int32_t{21});
    EXPECT_EQ(idle.result, PlistValue::integer(42)) << "the idle result is an integer";
    EXPECT_EQ(exitStatusFor(idle), kExitNormal);
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
    Outcome failedHook = run("echoWithRequest", PlistDictionary(), throwing);
    EXPECT_FALSE(failedHook.answered);
    EXPECT_EQ(failedHook.failure, "std::runtime_error: no set-up today");

    PluginDescriptor handlerless = descriptor();
    handlerless.createHandler = &createNoHandler;
    Outcome noHandler = run("echoWithRequest", PlistDictionary(), handlerless);
    EXPECT_FALSE(noHandler.answered);
    EXPECT_EQ(exitStatusFor(noHandler), kExitWithoutResponse);
}

TEST(HostInvocation, ArgumentMustFitTheOperationsStyle) {
    EXPECT_TRUE(argumentFitsStyle(OperationStyle::Request, PlistDictionary()));
    EXPECT_FALSE(argumentFitsStyle(OperationStyle::Request, PlistValue()));
    EXPECT_TRUE(argumentFitsStyle(OperationStyle::Service, PlistValue()));
    EXPECT_TRUE(argumentFitsStyle(OperationStyle::Service, PlistValue("skipDependenciesChecks")));
    EXPECT_FALSE(argumentFitsStyle(OperationStyle::Service, PlistValue::integer(0)));
    EXPECT_FALSE(argumentFitsStyle(OperationStyle::Service, PlistDictionary()));
    EXPECT_TRUE(argumentFitsStyle(OperationStyle::Idle, std::int32_t{0}));
    EXPECT_FALSE(argumentFitsStyle(OperationStyle::Idle, RawArgument{"0"}));
}

TEST(HostPluginDescriptor, OnlyAUsableDescriptorPasses) {
    EXPECT_EQ(descriptorProblem(descriptor()), std::nullopt);

    PluginDescriptor older = descriptor();
    older.interfaceVersion = kPluginInterfaceVersion + 1;
    EXPECT_NE(descriptorProblem(older).value_or("").find("interface version"), std::string::npos);

    PluginDescriptor hookless = descriptor();
    hookless.createHandler = nullptr;
    EXPECT_TRUE(descriptorProblem(hookless).has_value());

    const HostOperation mismatched[] = {
        {"startServiceWithVariant", OperationStyle::Service, &echoRequest, nullptr, nullptr}};
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

TEST(HostPluginDescriptor, OperationsAreFoundByTheirExactName) {
    EXPECT_EQ(findOperation(descriptor(), "doIdleAtCount"), &kOperations[5]);
    EXPECT_EQ(findOperation(descriptor(), "doidleatcount"), nullptr);
    EXPECT_EQ(findOperation(descriptor(), "doIdleAtCoun"), nullptr);
    EXPECT_EQ(findOperation(descriptor(), ""), nullptr);
}

TEST(HostPluginPath, OptionThenEnvironmentThenInstalledThenBuildTree) {
    auto everything = [](const std::string&) { return true; };
    auto nothing = [](const std::string&) { return false; };
    EXPECT_EQ(choosePluginPath("/opt/a.so", "/env.so", "/inst.so", "/build.so", everything),
              "/opt/a.so");
    EXPECT_EQ(choosePluginPath(std::nullopt, "/env.so", "/inst.so", "/build.so", everything),
              "/env.so");
    EXPECT_EQ(choosePluginPath(std::nullopt, "", "/inst.so", "/build.so", everything), "/inst.so")
        << "an empty VELNOR_PLUGIN counts as unset";
    EXPECT_EQ(choosePluginPath(std::nullopt, nullptr, "/inst.so", "/build.so", nothing),
              "/build.so");
}

}  // namespace
}  // namespace velnor::host
