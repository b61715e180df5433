#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstring>

#include "FakePlatform.h"
#include "clients/ProcessArguments.h"
#include "handler/PostgresRequestHandler.h"

namespace velnor::postgres {
namespace {

using ::testing::ElementsAre;
using testing::FakeProcess;
using ::testing::IsEmpty;

constexpr uid_t kService = 216;

// What a process-arguments query delivers: the count, the executable, its terminator and
// padding, then each argument and environment entry ending in a zero byte.
std::string processArgumentBytes(std::uint32_t count, const std::string& executable,
                                 const std::vector<std::string>& pieces,
                                 const std::vector<std::string>& environment = {}) {
    std::string bytes(sizeof count, '\0');
    std::memcpy(bytes.data(), &count, sizeof count);
    bytes += executable + std::string(4, '\0');
    for (const auto& piece : pieces) {
        bytes += piece + '\0';
    }
    for (const auto& piece : environment) {
        bytes += piece + '\0';
    }
    return bytes;
}

std::vector<std::string> cut(const std::string& delivered, std::size_t bufferSize = 96) {
    std::vector<char> buffer(bufferSize, '\0');
    std::copy(delivered.begin(), delivered.end(), buffer.begin());
    return cutArgumentBuffer(buffer, delivered.size());
}

TEST(ArgumentBufferCutting, KeepsNonEmptyUtf8PiecesAndNeverReadsPastTheBuffer) {
    EXPECT_THAT(
        cut(processArgumentBytes(2, "/usr/bin/postgres", {"postgres: idle", "", "x"}, {"HOME=/"})),
        ElementsAre("\x02", "/usr/bin/postgres", "postgres: idle", "x", "HOME=/"));
    // Never valid, overlong, a surrogate, past U+10FFFF, truncated; then two valid pieces.
    EXPECT_THAT(
        cut(processArgumentBytes(1, "/bin/a",
                                 {"ok", "bad\xff", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80",
                                  "\xe2\x82", "caf\xc3\xa9", "\xf0\x9f\x90\x98"})),
        ElementsAre("\x01", "/bin/a", "ok", "caf\xc3\xa9", "\xf0\x9f\x90\x98"));
    EXPECT_THAT(cut(processArgumentBytes(200, "/usr/bin/postgres", {"postgres: idle"})),
                ElementsAre("/usr/bin/postgres", "postgres: idle"))
        << "a count from 128 to 255 shifts every element";
    EXPECT_THAT(cut(std::string("ab\0cdefg", 8), 8), ElementsAre("ab", "cdefg"));
    EXPECT_THAT(cut(std::string("ab\0cd", 5), 8), ElementsAre("ab", "cd"));
}

class IdleClientShutdown : public testing::PlatformTest {
  protected:
    static FakeProcess server(std::int32_t pid, const std::string& title, uid_t uid = kService,
                              const std::string& executable = "/usr/bin/postgres") {
        return {pid, uid, processArgumentBytes(1, executable, {title}, {"PGDATA=/var/pgsql"})};
    }
    PostgresRequestHandler handler;
};

// Ending idle sessions of the service's server is shown against a real one; the processes that
// must be left alone are listed here.
TEST_F(IdleClientShutdown, LeavesEveryOtherProcessAloneAndGoesOnPastUnreadableOnes) {
    const std::string idle = "postgres: app db [local] idle";
    platform().processes = std::vector<FakeProcess>{
        server(10, idle, 0),                                               // another account
        server(1, idle),                                                   // pid 1
        server(0, idle),                                                   // pid 0
        server(11, idle, kService, "/usr/bin/pg"),                         // another program
        server(12, idle + " in transaction"),                              // busy
        server(13, "/usr/bin/postgres"),                                   // the main process
        server(14, "postgres: app db [local] IDLE"),                       // not the server's title
        {15, kService, processArgumentBytes(1, "/usr/bin/postgres", {})},  // two elements only
        {16, kService, std::nullopt},  // arguments cannot be read
        server(17, idle),
    };
    EXPECT_TRUE(handler.shutDownIdleClients());
    EXPECT_THAT(platform().signalsSent, ElementsAre(std::pair(17, SIGTERM)));
    EXPECT_EQ(platform().logMessages().front(), "velnor_postgres: Cannot interact with sysctl");
    // Only processes of the service account with a pid of 2 or more cost an argument read.
    EXPECT_EQ(platform().callsStartingWith("sysctl procargs").size(), 7u);
}

TEST_F(IdleClientShutdown, ArgumentsThatCannotBeMeasuredOrDoNotFitAreAFailure) {
    platform().processes = std::vector<FakeProcess>{server(40, "postgres: x idle")};
    platform().argumentMaximum = 8;
    EXPECT_THAT(handler.commandLineArgumentsForPid(40), IsEmpty());
    platform().argumentMaximumFails = true;
    EXPECT_THAT(handler.commandLineArgumentsForPid(40), IsEmpty());
    EXPECT_EQ(platform().callsStartingWith("sysctl procargs").size(), 1u);
    EXPECT_THAT(platform().logMessages(),
                ElementsAre("velnor_postgres: Cannot interact with sysctl",
                            "velnor_postgres: Cannot interact with sysctl"));
}

}  // namespace
}  // namespace velnor::postgres
