// The metrics' exposition: names, help and type lines, the counters of the restart ledger by
// cause, the histograms' buckets, and label values as the format escapes them.
#include <gtest/gtest.h>

#include <sstream>

#include "Metrics.h"
#include "ServiceFacts.h"

namespace velnor::host {
namespace {

std::chrono::steady_clock::time_point now() {
    return std::chrono::steady_clock::now();
}

// Metrics that write no ledger file and see the service as sample says.
struct Fixture {
    ServiceSample sample{true, false, 2, 1, 0};
    Metrics metrics{RestartLedger{}, "", [this] { return sample; }};

    // One run of the operation that moves the job as kinds say, and answers outcome.
    void run(const std::string& operation, std::vector<JobMoveKind> kinds, Outcome outcome) {
        metrics.operationBegan(operation);
        for (JobMoveKind kind : kinds) {
            metrics.jobMoved(JobMove{kServiceLabel, kind, true, now()});
        }
        metrics.operationEnded(operation, operation == "doIdleAtCount", outcome);
    }

    bool shows(const std::string& line) const {
        std::istringstream lines(metrics.exposition());
        for (std::string shown; std::getline(lines, shown);) {
            if (shown == line) {
                return true;
            }
        }
        return false;
    }
};

Outcome answered(PlistValue result = {}) {
    return Outcome{true, std::move(result), {}};
}

TEST(Metrics, EveryFamilyHasHelpAndTypeAndCountersEndInTotal) {
    Fixture fixture;
    std::istringstream lines(fixture.metrics.exposition());
    std::string help;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("# HELP ")) {
            help = line.substr(7, line.find(' ', 7) - 7);
        } else if (line.starts_with("# TYPE ")) {
            const std::string name = line.substr(7, line.find(' ', 7) - 7);
            EXPECT_EQ(name, help) << "a TYPE line right after its HELP";
            EXPECT_EQ(name.starts_with("velnor_"), true) << name;
            EXPECT_EQ(line.ends_with(" counter"), name.ends_with("_total")) << line;
        }
    }
}

TEST(Metrics, CountsStartsAndStopsByCauseAndFollowsTheState) {
    Fixture fixture;
    EXPECT_TRUE(fixture.shows("velnor_service_state{state=\"stopped\"} 1"));
    fixture.run("startServiceWithVariant", {JobMoveKind::Start}, answered());
    fixture.run("writeSettingsWithRequest", {JobMoveKind::Stop, JobMoveKind::Start}, answered());
    fixture.sample.running = false;
    fixture.run("doIdleAtCount", {}, answered(PlistValue::integer(0)));
    const char* expected[] = {
        "velnor_service_starts_total{cause=\"operator\"} 1",
        "velnor_service_starts_total{cause=\"settings change\"} 1",
        "velnor_service_stops_total{cause=\"settings change\"} 1",
        "velnor_service_starts_total{cause=\"at load\"} 0",
        "velnor_service_state{state=\"stopped\"} 1",
        "velnor_service_state{state=\"running\"} 0",
        "velnor_idle_ticks_total 1",
        "velnor_server_connections{state=\"idle\"} 2",
        "velnor_server_connections{state=\"idle in transaction\"} 1",
        "velnor_operations_total{operation=\"startServiceWithVariant\",outcome=\"ok\"} 1",
        "velnor_operation_duration_seconds_count{operation=\"writeSettingsWithRequest\"} 1",
        "velnor_operation_duration_seconds_bucket{operation=\"writeSettingsWithRequest\","
        "le=\"+Inf\"} 1",
        "velnor_idle_tick_duration_seconds_bucket{le=\"30\"} 1",
    };
    for (const char* line : expected) {
        EXPECT_TRUE(fixture.shows(line)) << line << "\n" << fixture.metrics.exposition();
    }
}

TEST(Metrics, AKillOutsideAnyRunCountsForTheStopDeadline) {
    Fixture fixture;
    // The state query at a stop's deadline is no run of the plug-in's.
    fixture.metrics.jobMoved(JobMove{kServiceLabel, JobMoveKind::Kill, true, now()});
    fixture.run("getStateWithRequest", {}, answered());
    EXPECT_TRUE(fixture.shows("velnor_service_stops_total{cause=\"stop deadline\"} 1"));
    EXPECT_TRUE(fixture.shows("velnor_service_state{state=\"stopped\"} 1"));
}

TEST(Metrics, AStartInProgressShowsAsStarting) {
    Fixture fixture;
    fixture.metrics.operationBegan("startServiceWithVariant");
    fixture.metrics.jobMoved(JobMove{kServiceLabel, JobMoveKind::Start, true, now()});
    EXPECT_TRUE(fixture.shows("velnor_service_state{state=\"starting\"} 1"));
    fixture.metrics.operationEnded("startServiceWithVariant", false, answered());
    EXPECT_TRUE(fixture.shows("velnor_service_state{state=\"running\"} 1"));
}

TEST(Metrics, StartsFromTheLedgerItWasGiven) {
    RestartLedger ledger;
    ledger.starts[static_cast<std::size_t>(MoveCause::Migration)] = 7;
    ledger.stopFailures["CANNOT_STOP_SERVICE_ERR"] = 2;
    ledger.lastStart = 1795566412;
    Metrics metrics(ledger, "", nullptr);
    const std::string text = metrics.exposition();
    for (const char* line :
         {"velnor_service_starts_total{cause=\"migration\"} 7",
          "velnor_service_stop_failures_total{code=\"CANNOT_STOP_SERVICE_ERR\"} 2",
          "velnor_service_last_start_timestamp_seconds 1795566412"}) {
        EXPECT_NE(text.find(std::string(line) + "\n"), std::string::npos) << line << "\n" << text;
    }
}

TEST(Metrics, CountsTheFoldersTheHousekeepingPutBack) {
    Fixture fixture;
    fixture.metrics.logged("velnor_postgres: Created socket folder /var/pgsql_socket");
    fixture.metrics.logged("velnor_postgres: Created log folder /Library/Logs/PostgreSQL");
    fixture.metrics.logged("velnor_postgres: Created log folder /Library/Logs/PostgreSQL");
    fixture.metrics.logged("velnor_postgres: waiting for postgres to respond");
    EXPECT_TRUE(fixture.shows("velnor_housekeeping_folders_put_back_total{folder=\"socket\"} 1"));
    EXPECT_TRUE(fixture.shows("velnor_housekeeping_folders_put_back_total{folder=\"log\"} 2"));
}

}  // namespace
}  // namespace velnor::host
