#include "Metrics.h"

#include <prometheus/counter.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>
#include <syslog.h>

#include <algorithm>

#include "Explanations.h"
#include "LaunchDaemon.h"
#include "LaunchdJobs.h"
#include "ServiceFacts.h"

namespace velnor::host {
namespace {

using prometheus::Counter;
using prometheus::Family;
using prometheus::Gauge;
using prometheus::Histogram;

constexpr std::string_view kStates[] = {"running", "stopped", "starting", "stopping"};
constexpr MoveCause kCauses[] = {MoveCause::Operator, MoveCause::SettingsChange,
                                 MoveCause::Migration, MoveCause::AtLoad, MoveCause::StopDeadline};

// From a state report's millisecond of a call to a settings change's few seconds of restart.
const Histogram::BucketBoundaries& durationBuckets() {
    static const Histogram::BucketBoundaries buckets{
        0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10, 30};
    return buckets;
}

// What a call came to: "ok", "error" (an error response) or "no response" (it threw).
std::string outcomeName(const Outcome& outcome) {
    if (!outcome.answered) {
        return "no response";
    }
    const PlistDictionary* response = outcome.result.asDictionary();
    return response != nullptr && response->contains("error") ? "error" : "ok";
}

// The error code of a response; empty when it has none.
std::string errorCodeOf(const Outcome& outcome) {
    const PlistDictionary* response = outcome.result.asDictionary();
    const PlistValue* error = response != nullptr ? response->find("error") : nullptr;
    if (error == nullptr) {
        return {};
    }
    return error->asString() != nullptr ? *error->asString() : "unnamed";
}

// The server's version number as the probe gives it in the server's own words: 150010 is 15.10
// and, before 10, 90624 is 9.6.24.
std::string versionText(std::int64_t number) {
    if (number >= 100000) {
        return std::to_string(number / 10000) + "." + std::to_string(number % 10000);
    }
    return std::to_string(number / 10000) + "." + std::to_string(number / 100 % 100) + "." +
           std::to_string(number % 100);
}

double secondsBetween(std::chrono::steady_clock::time_point from,
                      std::chrono::steady_clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

}  // namespace

ServiceSample sampleService() {
    ServiceSample sample;
    sample.running = GetLaunchDaemonServiceState(kServiceLabel);
    for (const PendingStop& stop : LaunchdJobs::onThisMachine().pendingStops()) {
        sample.stopping = sample.stopping || stop.label == kServiceLabel;
    }
    for (const ClientTitle& client : serverClients()) {
        if (client.state == "idle") {
            ++sample.idle;
        } else if (client.state.starts_with("idle in transaction")) {
            ++sample.idleInTransaction;
        } else {
            ++sample.active;
        }
    }
    return sample;
}

struct Metrics::Families {
    explicit Families(prometheus::Registry& registry)
        : state(prometheus::BuildGauge()
                    .Name("velnor_service_state")
                    .Help("1 for the state the service is in, 0 for the others: running (the job "
                          "runs), starting (a start waits for the server), stopping (a stop "
                          "waits for the server to end), stopped (no process of the job runs)")
                    .Register(registry)),
          probeAnswered(prometheus::BuildGauge()
                            .Name("velnor_server_probe_answered")
                            .Help("1 when the server answered the plug-in's last liveness probe "
                                  "(a start, a stop or a detailed state report), else 0")
                            .Register(registry)
                            .Add({})),
          serverInfo(prometheus::BuildGauge()
                         .Name("velnor_server_info")
                         .Help("1, labelled with the version the server gave its last probe")
                         .Register(registry)),
          starts(prometheus::BuildCounter()
                     .Name("velnor_service_starts_total")
                     .Help("Starts of the service by cause, kept across restarts of velnord")
                     .Register(registry)),
          stops(prometheus::BuildCounter()
                    .Name("velnor_service_stops_total")
                    .Help("Stops of the service by cause (the stop deadline's are SIGKILLs), kept "
                          "across restarts of velnord")
                    .Register(registry)),
          startFailures(prometheus::BuildCounter()
                            .Name("velnor_service_start_failures_total")
                            .Help("Starts that failed, by the plug-in's error code")
                            .Register(registry)),
          stopFailures(prometheus::BuildCounter()
                           .Name("velnor_service_stop_failures_total")
                           .Help("Stops that failed, by the plug-in's error code")
                           .Register(registry)),
          lastStart(prometheus::BuildGauge()
                        .Name("velnor_service_last_start_timestamp_seconds")
                        .Help("When the last start was asked for, in seconds since 1970")
                        .Register(registry)
                        .Add({})),
          lastStartDuration(prometheus::BuildGauge()
                                .Name("velnor_service_last_start_duration_seconds")
                                .Help("How long the last start took, until the server answered "
                                      "or the call that asked for it ended")
                                .Register(registry)
                                .Add({})),
          lastStopDuration(prometheus::BuildGauge()
                               .Name("velnor_service_last_stop_duration_seconds")
                               .Help("How long the last stop took, until the server had gone or "
                                     "the call that asked for it ended")
                               .Register(registry)
                               .Add({})),
          operations(prometheus::BuildCounter()
                         .Name("velnor_operations_total")
                         .Help("Calls of the plug-in's operations by operation and outcome (ok, "
                               "error, no response)")
                         .Register(registry)),
          operationDuration(prometheus::BuildHistogram()
                                .Name("velnor_operation_duration_seconds")
                                .Help("How long the plug-in's operations took, idle ticks apart")
                                .Register(registry)),
          ticks(prometheus::BuildCounter()
                    .Name("velnor_idle_ticks_total")
                    .Help("Idle ticks that ran the plug-in's housekeeping")
                    .Register(registry)
                    .Add({})),
          tickDuration(prometheus::BuildHistogram()
                           .Name("velnor_idle_tick_duration_seconds")
                           .Help("How long the idle ticks took")
                           .Register(registry)
                           .Add({}, durationBuckets())),
          foldersPutBack(prometheus::BuildCounter()
                             .Name("velnor_housekeeping_folders_put_back_total")
                             .Help("Folders that the housekeeping found missing and created again")
                             .Register(registry)),
          refused(prometheus::BuildCounter()
                      .Name("velnor_requests_refused_total")
                      .Help("Requests on the control socket that velnord refused, by reason")
                      .Register(registry)),
          consoleSessions(prometheus::BuildCounter()
                              .Name("velnor_console_sessions_total")
                              .Help("Sessions that the web console opened")
                              .Register(registry)
                              .Add({})),
          connections(prometheus::BuildGauge()
                          .Name("velnor_server_connections")
                          .Help("The server's client connections by state, as their process "
                                "titles showed them at the last idle tick")
                          .Register(registry)) {
        prometheus::BuildGauge()
            .Name("velnor_build_info")
            .Help("1, labelled with velnord's version")
            .Register(registry)
            .Add({{"version", VELNOR_VERSION}})
            .Set(1);
        for (MoveCause cause : kCauses) {
            starts.Add({{"cause", std::string(causeName(cause))}});
            stops.Add({{"cause", std::string(causeName(cause))}});
        }
        for (std::string_view name : {"socket", "log"}) {
            foldersPutBack.Add({{"folder", std::string(name)}});
        }
        for (std::string_view reason : {"not allowed", "malformed"}) {
            refused.Add({{"reason", std::string(reason)}});
        }
        for (std::string_view name : {"idle", "idle in transaction", "active"}) {
            connections.Add({{"state", std::string(name)}});
        }
    }

    Family<Gauge>& state;
    Gauge& probeAnswered;
    Family<Gauge>& serverInfo;
    Family<Counter>& starts;
    Family<Counter>& stops;
    Family<Counter>& startFailures;
    Family<Counter>& stopFailures;
    Gauge& lastStart;
    Gauge& lastStartDuration;
    Gauge& lastStopDuration;
    Family<Counter>& operations;
    Family<Histogram>& operationDuration;
    Counter& ticks;
    Histogram& tickDuration;
    Family<Counter>& foldersPutBack;
    Family<Counter>& refused;
    Counter& consoleSessions;
    Family<Gauge>& connections;
};

Metrics::Metrics(RestartLedger ledger, std::string ledgerPath,
                 std::function<ServiceSample()> sample)
    : ledgerPath_(std::move(ledgerPath)),
      sample_(std::move(sample)),
      registry_(std::make_shared<prometheus::Registry>()),
      families_(std::make_unique<Families>(*registry_)),
      ledger_(std::move(ledger)) {
    for (MoveCause cause : kCauses) {
        const std::size_t index = static_cast<std::size_t>(cause);
        families_->starts.Add({{"cause", std::string(causeName(cause))}})
            .Increment(static_cast<double>(ledger_.starts[index]));
        families_->stops.Add({{"cause", std::string(causeName(cause))}})
            .Increment(static_cast<double>(ledger_.stops[index]));
    }
    for (const auto& [code, count] : ledger_.startFailures) {
        families_->startFailures.Add({{"code", code}}).Increment(static_cast<double>(count));
    }
    for (const auto& [code, count] : ledger_.stopFailures) {
        families_->stopFailures.Add({{"code", code}}).Increment(static_cast<double>(count));
    }
    families_->lastStart.Set(static_cast<double>(ledger_.lastStart.value_or(0)));
    families_->lastStartDuration.Set(ledger_.lastStartSeconds);
    families_->lastStopDuration.Set(ledger_.lastStopSeconds);
    setStateLocked(state_);
}

Metrics::~Metrics() = default;

void Metrics::operationBegan(const std::string& operation) {
    beginRun(movesOfOperation(operation));
}

void Metrics::operationEnded(const std::string& operation, bool idle, const Outcome& outcome) {
    const double took = secondsBetween(runBegan_, std::chrono::steady_clock::now());
    if (idle) {
        families_->ticks.Increment();
        families_->tickDuration.Observe(took);
    } else {
        families_->operations.Add({{"operation", operation}, {"outcome", outcomeName(outcome)}})
            .Increment();
        families_->operationDuration.Add({{"operation", operation}}, durationBuckets())
            .Observe(took);
    }
    if (operation == "getStateWithRequest") {
        learnFromStateReport(outcome);
    }
    endRun(&outcome, idle);
}

void Metrics::atLoadBegan() {
    beginRun(RunMoves{RunMoves::Own::Every, MoveCause::AtLoad});
}

void Metrics::atLoadEnded() {
    endRun(nullptr, false);
}

void Metrics::beginRun(RunMoves moves) {
    std::lock_guard lock(mutex_);
    run_ = moves;
    runBegan_ = std::chrono::steady_clock::now();
    moves_.clear();
}

void Metrics::jobMoved(const JobMove& move) {
    if (move.label != kServiceLabel) {
        return;
    }
    std::lock_guard lock(mutex_);
    moves_.push_back(move);
    if (move.done) {
        setStateLocked(move.kind == JobMoveKind::Start  ? "starting"
                       : move.kind == JobMoveKind::Stop ? "stopping"
                                                        : "stopped");
    }
}

// The run's moves go to the ledger, and the state is sampled again: after an idle tick, and
// after any run that moved the job.
void Metrics::endRun(const Outcome* outcome, bool tick) {
    bool moved = false;
    {
        std::lock_guard lock(mutex_);
        moved = !moves_.empty();
    }
    std::optional<ServiceSample> sample;
    if ((moved || tick) && sample_) {
        sample = sample_();
    }
    bool changed = false;
    RestartLedger written;
    {
        std::lock_guard lock(mutex_);
        recordMovesLocked(outcome, changed);
        if (sample) {
            setStateLocked(!sample->running   ? "stopped"
                           : sample->stopping ? "stopping"
                                              : "running");
            if (!sample->running) {
                families_->probeAnswered.Set(0);
            }
            if (tick) {
                families_->connections.Add({{"state", "idle"}})
                    .Set(static_cast<double>(sample->idle));
                families_->connections.Add({{"state", "idle in transaction"}})
                    .Set(static_cast<double>(sample->idleInTransaction));
                families_->connections.Add({{"state", "active"}})
                    .Set(static_cast<double>(sample->active));
            }
        }
        written = ledger_;
    }
    if (changed && !ledgerPath_.empty()) {
        if (support::Status saved = writeLedgerFile(ledgerPath_, written); !saved) {
            ::syslog(LOG_ERR, "the restart ledger is kept in memory only: %s",
                     saved.message().c_str());
        }
    }
}

void Metrics::recordMovesLocked(const Outcome* outcome, bool& changed) {
    const auto now = std::chrono::steady_clock::now();
    const auto systemNow = std::chrono::system_clock::now();
    std::vector<JobMoveKind> kinds;
    for (const JobMove& move : moves_) {
        kinds.push_back(move.kind);
    }
    const std::vector<MoveCause> causes = causesOf(kinds, run_);
    const bool ownIsOne = run_.own == RunMoves::Own::Start || run_.own == RunMoves::Own::Stop;
    for (std::size_t index = 0; index < moves_.size(); ++index) {
        const JobMove& move = moves_[index];
        const auto ended = index + 1 < moves_.size() ? moves_[index + 1].began : now;
        const double took = secondsBetween(move.began, ended);
        const bool start = move.kind == JobMoveKind::Start;
        const std::string cause(causeName(causes[index]));
        if (start) {
            const auto began = std::chrono::time_point_cast<std::chrono::system_clock::duration>(
                systemNow - (now - move.began));
            recordStart(ledger_, causes[index], began, took);
            families_->starts.Add({{"cause", cause}}).Increment();
            families_->lastStart.Set(static_cast<double>(*ledger_.lastStart));
            families_->lastStartDuration.Set(took);
        } else {
            recordStop(ledger_, causes[index], took);
            families_->stops.Add({{"cause", cause}}).Increment();
            families_->lastStopDuration.Set(took);
        }
        // A start or stop call answers for its own move's failure, with the code it answers.
        const bool answeredFor = ownIsOne && causes[index] == run_.cause;
        if (!move.done && !answeredFor) {
            const std::string code = start ? "CANNOT_START_SERVICE_ERR" : "CANNOT_STOP_SERVICE_ERR";
            recordFailure(ledger_, start, code);
            (start ? families_->startFailures : families_->stopFailures)
                .Add({{"code", code}})
                .Increment();
        }
        changed = true;
    }
    moves_.clear();
    if (ownIsOne && outcome != nullptr) {
        if (const std::string code = errorCodeOf(*outcome); !code.empty()) {
            const bool start = run_.own == RunMoves::Own::Start;
            recordFailure(ledger_, start, code);
            // The ledger keeps a bounded number of codes; the metric shows the same ones.
            const auto& kept = start ? ledger_.startFailures : ledger_.stopFailures;
            const std::string shown = kept.contains(code) ? code : "other";
            (start ? families_->startFailures : families_->stopFailures)
                .Add({{"code", shown}})
                .Increment();
            changed = true;
        }
        families_->probeAnswered.Set(run_.own == RunMoves::Own::Start && outcome->answered &&
                                             errorCodeOf(*outcome).empty()
                                         ? 1
                                         : 0);
    }
}

void Metrics::setStateLocked(std::string_view state) {
    state_ = std::string(state);
    for (std::string_view name : kStates) {
        families_->state.Add({{"state", std::string(name)}}).Set(name == state ? 1 : 0);
    }
}

// A state report tells whether the job runs, and a detailed one what the probe found.
void Metrics::learnFromStateReport(const Outcome& outcome) {
    const PlistDictionary* report = outcome.result.asDictionary();
    if (report == nullptr) {
        return;
    }
    std::lock_guard lock(mutex_);
    if (const PlistValue* state = report->find("state"); state && state->asString()) {
        if (*state->asString() == "STOPPED") {
            setStateLocked("stopped");
        } else if (state_ == "stopped") {
            setStateLocked("running");
        }
    }
    const PlistValue* responding = report->find("postgresIsResponding");
    if (responding == nullptr || !responding->asBoolean()) {
        return;
    }
    families_->probeAnswered.Set(*responding->asBoolean() ? 1 : 0);
    const PlistValue* version = report->find("PGserverVersion");
    const std::optional<std::int64_t> number = version ? version->asInteger() : std::nullopt;
    if (number && *number > 0 && versionText(*number) != serverVersion_) {
        if (!serverVersion_.empty()) {
            families_->serverInfo.Remove(&families_->serverInfo.Add({{"version", serverVersion_}}));
        }
        serverVersion_ = versionText(*number);
        families_->serverInfo.Add({{"version", serverVersion_}}).Set(1);
    }
}

void Metrics::logged(const std::string& message) {
    for (const FolderNotice& notice : kFolderPutBackNotices) {
        if (message.find(notice.words) != std::string::npos) {
            families_->foldersPutBack.Add({{"folder", std::string(notice.folder)}}).Increment();
        }
    }
}

void Metrics::requestRefused(RefusalReason reason) {
    families_->refused
        .Add({{"reason", reason == RefusalReason::NotAllowed ? "not allowed" : "malformed"}})
        .Increment();
}

void Metrics::consoleSessionOpened() {
    families_->consoleSessions.Increment();
}

std::string Metrics::exposition() const {
    return prometheus::TextSerializer().Serialize(registry_->Collect());
}

PlistValue Metrics::ledgerFigures() const {
    const std::string today = localDayOf(std::chrono::system_clock::now());
    std::lock_guard lock(mutex_);
    return host::ledgerFigures(ledger_, today);
}

}  // namespace velnor::host
