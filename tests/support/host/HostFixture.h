// A scratch folder and an environment of their own for each test that runs the real velnor
// program: its lock file lives in the scratch folder, never under /var/run.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "VelnorProcess.h"

namespace velnor::testing {

class HostFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/velnor-host-test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr) << "cannot create a scratch folder";
        folder_ = pattern;
    }
    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }

    std::string path(const std::string& name) const { return folder_ + "/" + name; }
    // Inside a folder that velnor has to create.
    std::string lockPath() const { return path("run/host.lock"); }

    // The test's own environment, with the lock in the scratch folder and neither the plug-in
    // nor the database socket chosen from outside.
    EnvironmentChanges environment() const {
        return {{"VELNOR_LOCK_FILE", lockPath()},
                {"VELNOR_PLUGIN", std::nullopt},
                {"PGHOST", std::nullopt}};
    }

    // velnor with the test plug-in, then the arguments.
    std::vector<std::string> withTestPlugin(const std::vector<std::string>& arguments) const {
        std::vector<std::string> result{"--plugin", VELNOR_TEST_PLUGIN};
        result.insert(result.end(), arguments.begin(), arguments.end());
        return result;
    }

    VelnorRun velnor(const std::vector<std::string>& arguments, std::string_view input = {}) {
        return runVelnor(withTestPlugin(arguments), environment(), input);
    }

    std::string writeFile(const std::string& name, std::string_view content) const {
        std::string file = path(name);
        std::ofstream(file, std::ios::binary) << content;
        return file;
    }

  private:
    std::string folder_;
};

}  // namespace velnor::testing
