// A fake of everything the plug-in asks of the host support library and the operating system.
//
// The unit-test binary links these definitions in place of the real ones in src/platform, so
// the plug-in's code runs unchanged while each answer is scripted and each call recorded.
// Tests reach the one fake through fake(); the PlatformTest fixture resets it before each test.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "LaunchDaemon.h"
#include "PlistValue.h"
#include "ProcessTable.h"

namespace velnor::testing {

struct LogEntry {
    int priority;
    std::string message;
    bool operator==(const LogEntry&) const = default;
};

// One entry of the fake file system: a folder, or a file that may parse as a dictionary.
struct FakeEntry {
    bool folder = false;
    std::optional<PlistDictionary> propertyList;
};

struct FakeProcess {
    std::int32_t pid;
    uid_t uid;
    // The bytes that the process-arguments query delivers; nullopt makes the query fail.
    std::optional<std::string> argumentBytes;
};

class FakePlatform {
  public:
    void reset() { *this = FakePlatform(); }

    // Every call, in order, as "name argument...", for tests about the order of effects.
    std::vector<std::string> calls;
    std::vector<LogEntry> log;

    // launchd: the job's state, whether it obeys, and every state asked of it.
    bool jobRunning = false;
    bool launchdAccepts = true;
    std::vector<int> requestedStates;

    // The job's launch arguments as the host library reads them, and every vector it stored.
    std::optional<LaunchArguments> jobArguments;
    std::vector<LaunchArguments> storedArguments;

    // File system, by path, and the calls that fail: path -> error text.
    std::map<std::string, FakeEntry> entries;
    std::map<std::string, std::string> createDirectoryFailures;
    std::map<std::string, std::string> setAttributesFailures;

    // Process table; nullopt makes the table unreadable.
    std::optional<std::vector<FakeProcess>> processes = std::vector<FakeProcess>{};
    std::int32_t argumentMaximum = 4096;
    bool argumentMaximumFails = false;
    std::vector<std::pair<pid_t, int>> signalsSent;
    std::vector<kinfo_proc> table;  // the records handed out by the last table read

    // Liveness probe: each connection attempt takes the next answer (a server version, or
    // nullopt for a failed connection); when they run out, serverAnswers decides.
    std::deque<std::optional<int>> probeAnswers;
    std::optional<int> serverAnswers;  // nullopt: the server is silent
    bool serverFollowsJob = false;     // answers exactly while launchd runs the job

    void addFolder(const std::string& path) { entries[path].folder = true; }
    void addFile(const std::string& path) { entries[path] = FakeEntry{}; }
    bool exists(const std::string& path) const { return entries.contains(path); }

    // The recorded calls whose text begins with prefix.
    std::vector<std::string> callsStartingWith(const std::string& prefix) const;
    std::vector<std::string> logMessages() const;
};

FakePlatform& fake();

// Resets the fake before each test.
class PlatformTest : public ::testing::Test {
  protected:
    void SetUp() override { fake().reset(); }
    FakePlatform& platform() { return fake(); }
};

}  // namespace velnor::testing
