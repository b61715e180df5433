#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "FakePlatform.h"
#include "clients/ProcessArguments.h"
#include "handler/PostgresRequestHandler.h"

namespace velnor::postgres {
namespace {

using ::testing::ElementsAre;
using testing::FakeProcess;
using ::testing::IsEmpty;
using testing::LogEntry;
using testing::processArgumentBytes;

constexpr uid_t kService = 216;

std::vector<std::string> cut(const std::string& delivered, std::size_t bufferSize = 64) {
    std::vector<char> buffer(bufferSize, '\0');
    std::copy(delivered.begin(), delivered.end(), buffer.begin());
    return cutArgumentBuffer(buffer, delivered.size());
}

TEST(ArgumentBufferCutting, KeepsNonEmptyValidPiecesInOrder) {
    EXPECT_THAT(
        cut(processArgumentBytes(2, "/usr/bin/postgres", {"postgres: idle", "", "x"}, {"HOME=/"})),
        ElementsAre("\x02", "/usr/bin/postgres", "postgres: idle", "x", "HOME=/"));
}

TEST(ArgumentBufferCutting, DropsPiecesThatAreNotUtf8) {
    // Never valid, overlong, a surrogate, past U+10FFFF, truncated; then two valid pieces.
    EXPECT_THAT(
        cut(processArgumentBytes(1, "/bin/a",
                                 {"ok", "bad\xff", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80",
                                  "\xe2\x82", "caf\xc3\xa9", "\xf0\x9f\x90\x98"}),
            96),
        ElementsAre("\x01", "/bin/a", "ok", "caf\xc3\xa9", "\xf0\x9f\x90\x98"));
}

TEST(ArgumentBufferCutting, ACountFrom128To255ShiftsEveryElement) {
    EXPECT_THAT(cut(processArgumentBytes(200, "/usr/bin/postgres", {"postgres: idle"})),
                ElementsAre("/usr/bin/postgres", "postgres: idle"));
}

TEST(ArgumentBufferCutting, ReadsALastPieceOnIntoTheZeroFilledRest) {
    std::vector<char> buffer(16, '\0');
    const std::string delivered("ab\0cdef", 7);
    std::copy(delivered.begin(), delivered.end(), buffer.begin());
    buffer[8] = 'g';  // beyond what was delivered, past a zero byte: not read
    EXPECT_THAT(cutArgumentBuffer(buffer, 5), ElementsAre("ab", "cdef"));
}

TEST(ArgumentBufferCutting, NeverReadsPastTheBufferAndHandlesNothingDelivered) {
    std::vector<char> full(4, 'x');
    EXPECT_THAT(cutArgumentBuffer(full, 4), ElementsAre("xxxx"));
    std::vector<char> zeros(8, '\0');
    EXPECT_THAT(cutArgumentBuffer(zeros, 0), IsEmpty());
}

class IdleClientShutdown : public testing::PlatformTest {
  protected:
    static FakeProcess serverProcess(std::int32_t pid, const std::string& title,
                                     uid_t uid = kService,
                                     const std::string& executable = "/usr/bin/postgres") {
        return {pid, uid, processArgumentBytes(1, executable, {title}, {"PGDATA=/var/pgsql"})};
    }
    PostgresRequestHandler handler;
};

TEST_F(IdleClientShutdown, SignalsEveryIdleConnectionInTableOrder) {
    platform().processes = std::vector<FakeProcess>{
        serverProcess(300, "postgres: _postgres postgres [local] idle"),
        serverProcess(100, "postgres: app db [local] idle"),
        serverProcess(200, "postgres: app db 127.0.0.1(5000) idle"),
    };
    EXPECT_TRUE(handler.shutDownIdleClients());
    EXPECT_THAT(
        platform().signalsSent,
        ElementsAre(std::pair(300, SIGTERM), std::pair(100, SIGTERM), std::pair(200, SIGTERM)));
    ASSERT_EQ(platform().log.size(), 3u);
    EXPECT_EQ(platform().log[1],
              (LogEntry{LOG_WARNING,
                        "velnor_postgres: killing idle postgres process with signature "
                        "\"postgres: app db [local] idle\", pid=100\n"}));
}

TEST_F(IdleClientShutdown, LeavesEveryOtherProcessAlone) {
    platform().processes = std::vector<FakeProcess>{
        serverProcess(10, "postgres: app db [local] idle", 0),  // other account
        serverProcess(1, "postgres: app db [local] idle"),      // pid 1
        serverProcess(0, "postgres: app db [local] idle"),      // pid 0
        serverProcess(11, "postgres: app db [local] idle", kService, "/usr/bin/pg"),
        serverProcess(12, "postgres: app db [local] idle in transaction"),
        serverProcess(13, "/usr/bin/postgres"),  // the main process
        serverProcess(14, "postgres: app db [local] IDLE"),
        {15, kService, processArgumentBytes(1, "/usr/bin/postgres", {})},  // two elements only
    };
    EXPECT_TRUE(handler.shutDownIdleClients());
    EXPECT_THAT(platform().signalsSent, IsEmpty());
    EXPECT_THAT(platform().log, IsEmpty());
    // Only processes of the service account with a pid of 2 or more cost an argument read.
    EXPECT_THAT(platform().callsStartingWith("sysctl procargs"),
                ElementsAre("sysctl procargs 11", "sysctl procargs 12", "sysctl procargs 13",
                            "sysctl procargs 14", "sysctl procargs 15"));
}

TEST_F(IdleClientShutdown, LeavesAPidThatPassedToAnotherAccountAfterTheTableWasRead) {
    FakeProcess reused = serverProcess(50, "postgres: app db [local] idle");
    reused.ownerOnceHeld = 0;
    platform().processes = std::vector<FakeProcess>{reused};
    EXPECT_TRUE(handler.shutDownIdleClients());
    EXPECT_THAT(platform().signalsSent, IsEmpty());
    EXPECT_THAT(platform().log, IsEmpty());
    const auto& calls = platform().calls;
    const auto held = std::find(calls.begin(), calls.end(), "openProcess 50");
    const auto read = std::find(calls.begin(), calls.end(), "sysctl procargs 50");
    EXPECT_TRUE(held < read && read != calls.end()) << "the process is held before it is read";
}

TEST_F(IdleClientShutdown, AcceptsAnExecutablePathThatOnlyBeginsWithTheServerPath) {
    platform().processes = std::vector<FakeProcess>{
        serverProcess(20, "postgres: app db [local] idle", kService, "/usr/bin/postgres-15")};
    EXPECT_TRUE(handler.shutDownIdleClients());
    EXPECT_THAT(platform().signalsSent, ElementsAre(std::pair(20, SIGTERM)));
}

TEST_F(IdleClientShutdown, ReportsAnUnreadableTableOnce) {
    platform().processes = std::nullopt;
    EXPECT_FALSE(handler.shutDownIdleClients());
    EXPECT_THAT(platform().log,
                ElementsAre(LogEntry{LOG_ERR, "velnor_postgres: Cannot get process table"}));
}

TEST_F(IdleClientShutdown, GoesOnPastAProcessWhoseArgumentsCannotBeRead) {
    platform().processes = std::vector<FakeProcess>{
        {30, kService, std::nullopt},
        serverProcess(31, "postgres: app db [local] idle"),
    };
    EXPECT_TRUE(handler.shutDownIdleClients());
    EXPECT_THAT(platform().log[0],
                (LogEntry{LOG_ERR, "velnor_postgres: Cannot interact with sysctl"}));
    EXPECT_THAT(platform().signalsSent, ElementsAre(std::pair(31, SIGTERM)));
}

TEST_F(IdleClientShutdown, ArgumentMaximumFailureAllocatesNothingAndReadsNothing) {
    platform().processes = std::vector<FakeProcess>{serverProcess(40, "postgres: x idle")};
    platform().argumentMaximumFails = true;
    EXPECT_THAT(handler.commandLineArgumentsForPid(40), IsEmpty());
    EXPECT_THAT(platform().callsStartingWith("sysctl procargs"), IsEmpty());
    EXPECT_THAT(platform().logMessages(),
                ElementsAre("velnor_postgres: Cannot interact with sysctl"));
}

TEST_F(IdleClientShutdown, ArgumentsThatDoNotFitAreAFailure) {
    platform().processes = std::vector<FakeProcess>{serverProcess(41, "postgres: x idle")};
    platform().argumentMaximum = 8;
    EXPECT_THAT(handler.commandLineArgumentsForPid(41), IsEmpty());
    EXPECT_EQ(platform().log.size(), 1u);
}

}  // namespace
}  // namespace velnor::postgres
