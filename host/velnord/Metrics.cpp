#include "Metrics.h"

#include <syslog.h>

#include "Explanations.h"
#include "LaunchDaemon.h"
#include "LaunchdJobs.h"
#include "ServiceFacts.h"

namespace velnor::host {
namespace {

constexpr std::string_view kStates[] = {"running", "starting", "stopping", "stopped"};
constexpr MoveCause kCauses[] = {MoveCause::Operator, MoveCause::SettingsChange,
                                 MoveCause::Migration, MoveCause::AtLoad, MoveCause::StopDeadline};

// From a state report's millisecond to a settings change's few seconds of restart.
const std::vector<double> kDurationBounds{0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1,
                                          0.25,   0.5,   1,      2.5,   5,    10,    30};

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

void writeCauseCounts(std::string& out, std::string_view name, std::string_view help,
                      const CauseCounts& counts) {
    writeFamilyHeader(out, name, help, MetricType::Counter);
    for (MoveCause cause : kCauses) {
        writeSample(out, name, {{"cause", causeName(cause)}},
                    static_cast<double>(counts[static_cast<std::size_t>(cause)]));
    }
}

void writeCodeCounts(std::string& out, std::string_view name, std::string_view help,
                     const std::map<std::string, std::uint64_t>& counts) {
    writeFamilyHeader(out, name, help, MetricType::Counter);
    for (const auto& [code, count] : counts) {
        writeSample(out, name, {{"code", code}}, static_cast<double>(count));
    }
}

void writeGauge(std::string& out, std::string_view name, std::string_view help, double value) {
    writeFamilyHeader(out, name, help, MetricType::Gauge);
    writeSample(out, name, {}, value);
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

Metrics::Metrics(RestartLedger ledger, std::string ledgerPath,
                 std::function<ServiceSample()> sample)
    : ledgerPath_(std::move(ledgerPath)),
      sample_(std::move(sample)),
      ledger_(std::move(ledger)),
      tickDurations_(&kDurationBounds) {}

Metrics::~Metrics() = default;

void Metrics::operationBegan(const std::string& operation) {
    beginRun(movesOfOperation(operation));
}

void Metrics::operationEnded(const std::string& operation, bool idle, const Outcome& outcome) {
    {
        std::lock_guard lock(mutex_);
        const double took = secondsBetween(runBegan_, std::chrono::steady_clock::now());
        if (idle) {
            ++ticks_;
            tickDurations_.observe(took);
        } else {
            ++operations_[operation][outcomeName(outcome)];
            operationDurations_.try_emplace(operation, &kDurationBounds)
                .first->second.observe(took);
        }
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
    if (move.kind == JobMoveKind::Kill) {
        recordKill(move);
        return;
    }
    std::lock_guard lock(mutex_);
    moves_.push_back(move);
    if (move.done) {
        state_ = move.kind == JobMoveKind::Start ? "starting" : "stopping";
    }
}

// A kill is the stop deadline's whichever run makes it, and the state query at the deadline is
// no run of the plug-in's: it is counted, and the ledger written, at once.
void Metrics::recordKill(const JobMove& move) {
    RestartLedger written;
    {
        std::lock_guard lock(mutex_);
        recordStop(ledger_, MoveCause::StopDeadline,
                   secondsBetween(move.began, std::chrono::steady_clock::now()));
        if (!move.done) {
            recordFailure(ledger_, false, "CANNOT_STOP_SERVICE_ERR");
        }
        state_ = move.done ? "stopped" : state_;
        written = ledger_;
    }
    saveLedger(written);
}

void Metrics::saveLedger(const RestartLedger& ledger) const {
    if (ledgerPath_.empty()) {
        return;
    }
    if (support::Status saved = writeLedgerFile(ledgerPath_, ledger); !saved) {
        ::syslog(LOG_ERR, "the restart ledger is kept in memory only: %s", saved.message().c_str());
    }
}

// The run's moves go to the ledger, and the state is sampled again after an idle tick and after
// any run that moved the job. The sample is taken outside the lock: asking job control about the
// job may move it (a stop past its deadline is killed), and the move is told here.
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
    std::optional<RestartLedger> changed;
    {
        std::lock_guard lock(mutex_);
        if (recordMovesLocked(outcome)) {
            changed = ledger_;
        }
        if (sample) {
            state_ = !sample->running ? "stopped" : sample->stopping ? "stopping" : "running";
            probeAnswered_ = sample->running ? probeAnswered_ : false;
            if (tick) {
                connections_ = *sample;
            }
        }
    }
    if (changed) {
        saveLedger(*changed);
    }
}

bool Metrics::recordMovesLocked(const Outcome* outcome) {
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
        // A move lasts until the next one is asked for, or the run ends.
        const auto ended = index + 1 < moves_.size() ? moves_[index + 1].began : now;
        const double took = secondsBetween(move.began, ended);
        const bool start = move.kind == JobMoveKind::Start;
        if (start) {
            const auto began = std::chrono::time_point_cast<std::chrono::system_clock::duration>(
                systemNow - (now - move.began));
            recordStart(ledger_, causes[index], began, took);
        } else {
            recordStop(ledger_, causes[index], took);
        }
        // A start or stop call answers for its own move's failure, with the code it answers.
        const bool answeredFor = ownIsOne && causes[index] == run_.cause;
        if (!move.done && !answeredFor) {
            recordFailure(ledger_, start,
                          start ? "CANNOT_START_SERVICE_ERR" : "CANNOT_STOP_SERVICE_ERR");
        }
    }
    bool changed = !moves_.empty();
    moves_.clear();
    if (!ownIsOne || outcome == nullptr) {
        return changed;
    }
    const std::string code = errorCodeOf(*outcome);
    if (!code.empty()) {
        recordFailure(ledger_, run_.own == RunMoves::Own::Start, code);
        changed = true;
    }
    // A start answers once the server does; a stop once it no longer does.
    if (outcome->answered) {
        probeAnswered_ = run_.own == RunMoves::Own::Start && code.empty();
    }
    return changed;
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
            state_ = "stopped";
        } else if (state_ == "stopped") {
            state_ = "running";
        }
    }
    const PlistValue* responding = report->find("postgresIsResponding");
    if (responding == nullptr || !responding->asBoolean().has_value()) {
        return;
    }
    probeAnswered_ = *responding->asBoolean();
    const PlistValue* version = report->find("PGserverVersion");
    const std::optional<std::int64_t> number = version ? version->asInteger() : std::nullopt;
    if (number && *number > 0) {
        serverVersion_ = versionText(*number);
    }
}

void Metrics::logged(const std::string& message) {
    for (const FolderNotice& notice : kFolderPutBackNotices) {
        if (message.find(notice.words) != std::string::npos) {
            std::lock_guard lock(mutex_);
            ++(notice.folder == "socket" ? socketFoldersPutBack_ : logFoldersPutBack_);
        }
    }
}

void Metrics::requestRefused(RefusalReason reason) {
    std::lock_guard lock(mutex_);
    ++(reason == RefusalReason::NotAllowed ? refusedNotAllowed_ : refusedMalformed_);
}

void Metrics::consoleSessionOpened() {
    std::lock_guard lock(mutex_);
    ++consoleSessions_;
}

void Metrics::writeServiceLocked(std::string& out) const {
    writeFamilyHeader(out, "velnor_service_state",
                      "1 for the state the service is in, 0 for the others: running (the job "
                      "runs), starting (a start waits for the server), stopping (a stop waits "
                      "for the server to end), stopped (no process of the job runs)",
                      MetricType::Gauge);
    for (std::string_view state : kStates) {
        writeSample(out, "velnor_service_state", {{"state", state}}, state == state_ ? 1 : 0);
    }
    writeGauge(out, "velnor_server_probe_answered",
               "1 when the server answered the plug-in's last liveness probe (a start, a stop or "
               "a detailed state report), 0 when it did not or the job has since ended",
               probeAnswered_.value_or(false) ? 1 : 0);
    if (!serverVersion_.empty()) {
        writeFamilyHeader(out, "velnor_server_info",
                          "1, labelled with the version the server gave the last probe",
                          MetricType::Gauge);
        writeSample(out, "velnor_server_info", {{"version", serverVersion_}}, 1);
    }
    writeFamilyHeader(out, "velnor_server_connections",
                      "The server's client connections by state, as their process titles showed "
                      "them at the last idle tick",
                      MetricType::Gauge);
    writeSample(out, "velnor_server_connections", {{"state", "idle"}},
                static_cast<double>(connections_.idle));
    writeSample(out, "velnor_server_connections", {{"state", "idle in transaction"}},
                static_cast<double>(connections_.idleInTransaction));
    writeSample(out, "velnor_server_connections", {{"state", "active"}},
                static_cast<double>(connections_.active));
}

void Metrics::writeLedgerLocked(std::string& out) const {
    writeCauseCounts(out, "velnor_service_starts_total",
                     "Starts of the service by cause, kept across restarts of velnord",
                     ledger_.starts);
    writeCauseCounts(out, "velnor_service_stops_total",
                     "Stops of the service by cause (the stop deadline's are SIGKILLs), kept "
                     "across restarts of velnord",
                     ledger_.stops);
    writeCodeCounts(out, "velnor_service_start_failures_total",
                    "Starts that failed, by the plug-in's error code", ledger_.startFailures);
    writeCodeCounts(out, "velnor_service_stop_failures_total",
                    "Stops that failed, by the plug-in's error code", ledger_.stopFailures);
    writeGauge(out, "velnor_service_last_start_timestamp_seconds",
               "When the last start was asked for, in seconds since 1970 (0 for never)",
               static_cast<double>(ledger_.lastStart.value_or(0)));
    writeGauge(out, "velnor_service_last_start_duration_seconds",
               "How long the last start took, until the server answered or the call that asked "
               "for it ended",
               ledger_.lastStartSeconds);
    writeGauge(out, "velnor_service_last_stop_duration_seconds",
               "How long the last stop took, until the server had gone or the call that asked "
               "for it ended",
               ledger_.lastStopSeconds);
}

void Metrics::writeDaemonLocked(std::string& out) const {
    writeFamilyHeader(out, "velnor_operations_total",
                      "Calls of the plug-in's operations by operation and outcome (ok, error, no "
                      "response), idle ticks apart",
                      MetricType::Counter);
    for (const auto& [operation, outcomes] : operations_) {
        for (const auto& [outcome, count] : outcomes) {
            writeSample(out, "velnor_operations_total",
                        {{"operation", operation}, {"outcome", outcome}},
                        static_cast<double>(count));
        }
    }
    writeFamilyHeader(out, "velnor_operation_duration_seconds",
                      "How long the plug-in's operations took, idle ticks apart",
                      MetricType::Histogram);
    for (const auto& [operation, durations] : operationDurations_) {
        writeHistogram(out, "velnor_operation_duration_seconds", {{"operation", operation}},
                       durations);
    }
    writeFamilyHeader(out, "velnor_idle_ticks_total",
                      "Idle ticks that ran the plug-in's housekeeping", MetricType::Counter);
    writeSample(out, "velnor_idle_ticks_total", {}, static_cast<double>(ticks_));
    writeFamilyHeader(out, "velnor_idle_tick_duration_seconds", "How long the idle ticks took",
                      MetricType::Histogram);
    writeHistogram(out, "velnor_idle_tick_duration_seconds", {}, tickDurations_);
    writeFamilyHeader(out, "velnor_housekeeping_folders_put_back_total",
                      "Folders that the housekeeping found missing and created again",
                      MetricType::Counter);
    writeSample(out, "velnor_housekeeping_folders_put_back_total", {{"folder", "socket"}},
                static_cast<double>(socketFoldersPutBack_));
    writeSample(out, "velnor_housekeeping_folders_put_back_total", {{"folder", "log"}},
                static_cast<double>(logFoldersPutBack_));
    writeFamilyHeader(out, "velnor_requests_refused_total",
                      "Requests on the control socket that velnord refused, by reason",
                      MetricType::Counter);
    writeSample(out, "velnor_requests_refused_total", {{"reason", "not allowed"}},
                static_cast<double>(refusedNotAllowed_));
    writeSample(out, "velnor_requests_refused_total", {{"reason", "malformed"}},
                static_cast<double>(refusedMalformed_));
    writeFamilyHeader(out, "velnor_console_sessions_total", "Sessions that the web console opened",
                      MetricType::Counter);
    writeSample(out, "velnor_console_sessions_total", {}, static_cast<double>(consoleSessions_));
    writeFamilyHeader(out, "velnor_build_info", "1, labelled with velnord's version",
                      MetricType::Gauge);
    writeSample(out, "velnor_build_info", {{"version", VELNOR_VERSION}}, 1);
}

std::string Metrics::exposition() const {
    std::string out;
    out.reserve(16384);
    std::lock_guard lock(mutex_);
    writeServiceLocked(out);
    writeLedgerLocked(out);
    writeDaemonLocked(out);
    return out;
}

PlistValue Metrics::ledgerFigures() const {
    const std::string today = localDayOf(std::chrono::system_clock::now());
    std::lock_guard lock(mutex_);
    return host::ledgerFigures(ledger_, today);
}

}  // namespace velnor::host
