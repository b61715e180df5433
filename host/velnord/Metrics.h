// The daemon's figures, in one home: the service's state, the restart ledger, the worker's
// operations and idle ticks, the folders the housekeeping put back, the requests refused, the
// console's sessions and the server's connections. The worker, the jobs run at load, the job
// control's moves, the console and the control server update them as things happen; a scrape
// of the metrics endpoint only reads them, and never waits for the worker or calls the plug-in.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Exposition.h"
#include "Invocation.h"
#include "JobMoves.h"
#include "MoveCauses.h"
#include "PlistValue.h"
#include "RestartLedger.h"

namespace velnor::host {

// Why the control server refused a request.
enum class RefusalReason { NotAllowed, Malformed };

// What an idle tick saw of the service, outside the plug-in.
struct ServiceSample {
    bool running = false;
    bool stopping = false;
    // Connections by what their title says they do: idle, idle in transaction, active.
    std::uint64_t idle = 0;
    std::uint64_t idleInTransaction = 0;
    std::uint64_t active = 0;
};

// The sample as the host library and the process table give it now.
ServiceSample sampleService();

class Metrics {
  public:
    // Starts from ledger, the one read at start-up; the ledger is written to ledgerPath after
    // each run that changed it (an empty path writes nothing). sample gives what a tick sees;
    // without it, ticks see nothing and the state follows the moves and state reports alone.
    Metrics(RestartLedger ledger, std::string ledgerPath,
            std::function<ServiceSample()> sample = sampleService);
    ~Metrics();
    Metrics(const Metrics&) = delete;
    Metrics& operator=(const Metrics&) = delete;

    // A run of the plug-in's operation begins and ends, on the thread that holds the host lock.
    void operationBegan(const std::string& operation);
    void operationEnded(const std::string& operation, bool idle, const Outcome& outcome);
    // The jobs that run at load begin and end.
    void atLoadBegan();
    void atLoadEnded();
    // What job control did, from its watcher.
    void jobMoved(const JobMove& move);

    // A message that the plug-in logged: the housekeeping says so when it puts a folder back.
    void logged(const std::string& message);
    void requestRefused(RefusalReason reason);
    void consoleSessionOpened();

    // Every figure in the text exposition format 0.0.4 (Exposition.h).
    std::string exposition() const;
    // What status --details and the console show of the ledger.
    PlistValue ledgerFigures() const;

  private:
    void beginRun(RunMoves moves);
    void endRun(const Outcome* outcome, bool tick);
    // True when the ledger changed.
    bool recordMovesLocked(const Outcome* outcome);
    void recordKill(const JobMove& move);
    void saveLedger(const RestartLedger& ledger) const;
    void learnFromStateReport(const Outcome& outcome);
    void writeServiceLocked(std::string& out) const;
    void writeLedgerLocked(std::string& out) const;
    void writeDaemonLocked(std::string& out) const;

    const std::string ledgerPath_;
    const std::function<ServiceSample()> sample_;

    mutable std::mutex mutex_;
    RestartLedger ledger_;
    RunMoves run_;
    std::chrono::steady_clock::time_point runBegan_;
    std::vector<JobMove> moves_;
    std::string state_ = "stopped";
    std::optional<bool> probeAnswered_;
    std::string serverVersion_;
    // By operation, then outcome.
    std::map<std::string, std::map<std::string, std::uint64_t>> operations_;
    std::map<std::string, HistogramValue> operationDurations_;
    std::uint64_t ticks_ = 0;
    HistogramValue tickDurations_;
    std::uint64_t socketFoldersPutBack_ = 0;
    std::uint64_t logFoldersPutBack_ = 0;
    std::uint64_t refusedNotAllowed_ = 0;
    std::uint64_t refusedMalformed_ = 0;
    std::uint64_t consoleSessions_ = 0;
    ServiceSample connections_;
};

}  // namespace velnor::host
