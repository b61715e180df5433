// The audit trail's record: its JSON line, its words, what a settings write records, and the
// history's reading of lines and times.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "AuditHistory.h"
#include "AuditTrail.h"
#include "ChangeRecord.h"

namespace velnor::host {
namespace {

using Clock = std::chrono::system_clock;

// 2026-11-25T00:10:00.123Z
const Clock::time_point kSomeTime = Clock::from_time_t(1795565400) + std::chrono::milliseconds(123);

AuditRecord recordOf(std::string account, std::string value) {
    AuditRecord record;
    record.time = kSomeTime;
    record.caller = Caller{1000, std::move(account), 42, Channel::ControlSocket, {}};
    record.verb = "settings";
    record.operations = {"writeSettingsWithRequest"};
    record.changes = {{"work_mem", std::nullopt, value}};
    record.took = std::chrono::milliseconds(12);
    return record;
}

// What a hostile account name or value cannot do: end the line, break the JSON, or leave it
// invalid UTF-8. Each line reads back as the one object it was, with the bytes kept where they
// are UTF-8 and U+FFFD where they are not.
TEST(AuditRecord, HostileNamesAndValuesStayOneLineOfValidJson) {
    const struct {
        std::string bytes;
        std::string readBack;
    } cases[] = {
        {"plain", "plain"},
        {"line\nfeed\r", "line\nfeed\r"},
        {"quote\" and \\ back", "quote\" and \\ back"},
        {"}\n{\"account\":\"root\"", "}\n{\"account\":\"root\""},
        {std::string("nul\0byte", 8), std::string("nul\0byte", 8)},
        {"Größe", "Größe"},
        {"bad\xff\xc3", "bad\xef\xbf\xbd\xef\xbf\xbd"},
    };
    for (const auto& [bytes, readBack] : cases) {
        const std::string line = auditLine(recordOf(bytes, bytes));
        ASSERT_EQ(line.find('\n'), line.size() - 1) << "one line for " << readBack;
        const nlohmann::json json = nlohmann::json::parse(line, nullptr, false);
        ASSERT_TRUE(json.is_object()) << line;
        EXPECT_EQ(json["account"], readBack);
        EXPECT_EQ(json["changes"][0]["new"], readBack);
        EXPECT_FALSE(json["changes"][0].contains("old")) << "an unset setting has no old value";
    }
}

TEST(AuditRecord, FieldsAndWordsSayWhoHowWhatAndWhatCameOfIt) {
    AuditRecord done = recordOf("alice", "8MB");
    done.changes = {{"work_mem", "4MB", "8MB"}, {"shared_buffers", std::nullopt, "1GB"}};
    AuditRecord refused = recordOf("bob", "");
    refused.verb = "start";
    refused.operations.clear();
    refused.changes.clear();
    refused.outcome = AuditOutcome::Refused;
    refused.action = "org.velnor.postgres.operate";
    refused.words = "not authorized";
    AuditRecord failed = recordOf("root", "");
    failed.caller = Caller{0, "root", 0, Channel::Console, "127.0.0.1:5000"};
    failed.verb = "start";
    failed.changes.clear();
    failed.outcome = AuditOutcome::Error;
    failed.code = "CANNOT_START_SERVICE_TIMEOUT_ERR";
    failed.words = "the server did not answer within 2 s";
    const std::pair<AuditRecord, std::string> cases[] = {
        {done,
         "2026-11-25T00:10:00.123Z alice (uid 1000, control socket, pid 42) settings work_mem "
         "4MB -> 8MB, shared_buffers (unset) -> 1GB: done in 12 ms"},
        {refused,
         "2026-11-25T00:10:00.123Z bob (uid 1000, control socket, pid 42) start: refused: lacks "
         "org.velnor.postgres.operate: not authorized in 12 ms"},
        {failed,
         "2026-11-25T00:10:00.123Z root (uid 0, console, from 127.0.0.1:5000) start: error "
         "CANNOT_START_SERVICE_TIMEOUT_ERR: the server did not answer within 2 s in 12 ms"},
    };
    for (const auto& [record, words] : cases) {
        EXPECT_EQ(auditWords(auditValue(record)), words);
    }
    EXPECT_EQ(auditLine(refused),
              "{\"account\":\"bob\",\"action\":\"org.velnor.postgres.operate\",\"channel\":"
              "\"control socket\",\"operations\":[],\"outcome\":\"refused\",\"pid\":42,\"time\":"
              "\"2026-11-25T00:10:00.123Z\",\"tookMs\":12,\"uid\":1000,\"verb\":\"start\","
              "\"words\":\"not authorized\"}\n");
    EXPECT_EQ(auditWords(PlistDictionary{{"account", PlistValue("a\nb\x1b[31m")}}).substr(0, 5),
              " a?b?")
        << "the words are one line of a log, with no terminal escapes";
}

TEST(AuditRecord, SettingsWriteRecordsEveryChangedKeyWithItsStoredValue) {
    const PlistValue stored(PlistDictionary{
        {"configuration", PlistValue(PlistDictionary{{"work_mem", PlistValue("4MB")},
                                                     {"port", PlistValue("5432")}})}});
    const PlistDictionary asked{
        {"configuration", PlistValue(PlistDictionary{{"work_mem", PlistValue("8MB")},
                                                     {"port", PlistValue("5432")},
                                                     {"jit", PlistValue("off")},
                                                     {"odd", PlistValue::integer(3)}})}};
    std::vector<SettingChange> changes = settingChanges(stored, asked);
    ASSERT_EQ(changes.size(), 3u) << "the port, asked for as it was, is no change";
    EXPECT_EQ((std::tuple(changes[0].key, changes[0].before, changes[0].after)),
              (std::tuple("jit", std::nullopt, "off")));
    EXPECT_EQ((std::tuple(changes[1].key, changes[1].before, changes[1].after)),
              (std::tuple("odd", std::nullopt, "3")));
    EXPECT_EQ((std::tuple(changes[2].key, changes[2].before, changes[2].after)),
              (std::tuple("work_mem", std::optional<std::string>("4MB"), "8MB")));
    EXPECT_EQ(settingChanges(PlistValue(), asked).size(), 4u)
        << "a read that failed leaves every value asked for, its old one unknown";
}

TEST(AuditRecord, OnlyOperationsThatChangeTheServiceAreRecorded) {
    for (const char* changing :
         {"startServiceWithVariant", "stopServiceWithVariant", "recycleServiceWithVariant",
          "writeSettingsWithRequest", "initialSetupWithRequest", "doIdleAtCount"}) {
        EXPECT_TRUE(changesService(changing)) << changing;
    }
    for (const char* reading :
         {"getStateWithRequest", "readSettingsWithRequest", "getLogPathsWithRequest", ""}) {
        EXPECT_FALSE(changesService(reading)) << reading;
    }
}

TEST(AuditHistory, SinceTakesIsoTimesInUtcAndSpansBeforeNow) {
    const Clock::time_point now = kSomeTime;
    const std::pair<std::string, std::optional<std::string>> cases[] = {
        {"2026-11-24", "2026-11-24T00:00:00.000Z"},
        {"2026-11-24T10:30", "2026-11-24T10:30:00.000Z"},
        {"2026-11-24T10:30:15Z", "2026-11-24T10:30:15.000Z"},
        {"2026-11-24 10:30:15.25", "2026-11-24T10:30:15.250Z"},
        {"90s", "2026-11-25T00:08:30.123Z"},
        {"15m", "2026-11-24T23:55:00.123Z"},
        {"2h", "2026-11-24T22:10:00.123Z"},
        {"7d", "2026-11-18T00:10:00.123Z"},
        {"0s", "2026-11-25T00:10:00.123Z"},
        {"", std::nullopt},
        {"h", std::nullopt},
        {"-2h", std::nullopt},
        {"2w", std::nullopt},
        {"2h ago", std::nullopt},
        {"2026-11-24T", std::nullopt},
        {"2026-11-24T10", std::nullopt},
        {"2026-11-24T10:30:15.", std::nullopt},
        {"2026-11-24x", std::nullopt},
        {"yesterday", std::nullopt},
    };
    for (const auto& [text, expected] : cases) {
        std::optional<Clock::time_point> since = parseSince(text, now);
        EXPECT_EQ(since ? std::optional(auditTime(*since)) : std::nullopt, expected) << text;
    }
}

TEST(AuditHistory, ReadingKeepsWholeRecordsFromSinceOnAndCountsTornLines) {
    const std::string text =
        "{\"time\":\"2026-11-24T09:00:00.000Z\",\"verb\":\"start\"}\n"
        "\n"
        "{\"time\":\"2026-11-24T10:00:00.000Z\",\"verb\":\"stop\",\"pid\":7}\n"
        "{\"time\":\"2026-11-24T11:00:00.000Z\",\"ver\n"
        "[1,2]\n"
        "{\"time\":\"2026-11-24T12:00:00.000Z\",\"verb\":\"restart\"}";
    TrailReading reading;
    readTrailText(text, "2026-11-24T10:00:00.000Z", reading);
    ASSERT_EQ(reading.records.size(), 2u);
    EXPECT_EQ(*reading.records[0].asDictionary()->find("verb")->asString(), "stop");
    EXPECT_EQ(reading.records[0].asDictionary()->find("pid")->asInteger(), 7);
    EXPECT_EQ(*reading.records[1].asDictionary()->find("verb")->asString(), "restart");
    EXPECT_EQ(reading.unreadable, 2u) << "a torn line and a line that is no object";
}

}  // namespace
}  // namespace velnor::host
