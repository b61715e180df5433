// The host's own line against a module built for another plug-in interface: only a module made
// for that purpose could show it from outside.
#include <gtest/gtest.h>

#include "PluginLoader.h"

namespace velnor::host {
namespace {

TEST(PluginDescriptor, AnotherInterfaceVersionIsRefusedBeforeAnythingElse) {
    const PluginDescriptor other{
        kPluginInterfaceVersion + 1, "other", nullptr, nullptr, nullptr, 0};
    EXPECT_NE(descriptorProblem(other).value_or("").find("interface version"), std::string::npos);
}

}  // namespace
}  // namespace velnor::host
