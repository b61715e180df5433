// Starting, stopping and restarting the job, with bounded waits on the liveness probe.
#include <cstdint>
#include <string_view>

#include "handler/Constants.h"
#include "handler/Housekeeping.h"
#include "handler/Log.h"
#include "handler/PostgresRequestHandler.h"
#include "handler/RequestError.h"
#include "platform/HostLibrary.h"
#include "platform/Kernel.h"
#include "service/LivenessProbe.h"

namespace velnor::postgres {
namespace {

// Sleep after each probe that did not give the awaited answer.
constexpr std::uint32_t kPollIntervalMicroseconds = 500000;
// The wait ends once the summed sleeps reach this: probes after 0, 1, 2 and 3 sleeps.
constexpr std::uint32_t kWaitBoundMicroseconds = 2000000;

constexpr int kJobRunning = 1;
constexpr int kJobStopped = 0;

enum class WaitOutcome { Reached, TimedOut };

// Probes until the server's answer is the awaited one. The elapsed time counts only the sleeps,
// never the probes, so a slow probe does not shorten the wait; and the bound is tested before a
// probe, so the last sleep is followed by none.
WaitOutcome waitUntilServer(bool awaitResponding, const char* waitingMessage) {
    for (std::uint32_t elapsed = 0; elapsed < kWaitBoundMicroseconds;
         elapsed += kPollIntervalMicroseconds) {
        if (postgresIsResponding() == awaitResponding) {
            return WaitOutcome::Reached;
        }
        logMessage(LOG_WARNING, "%s", waitingMessage);
        platform::usleep(kPollIntervalMicroseconds);
    }
    return WaitOutcome::TimedOut;
}

// The housekeeping runs unless the variant is a string that begins with the skip prefix.
bool variantSkipsHousekeeping(const PlistValue& variant) {
    requireKindOrAbsent(&variant, PlistValue::Kind::String, "the variant");
    const std::string* text = variant.asString();
    return text && std::string_view(*text).starts_with(kSkipDependenciesVariant);
}

// A change of the job's state: what launchd is asked for, and what is said and answered when it
// refuses or the server does not follow in time.
struct JobTransition {
    int jobState;
    const char* refusedError;
    const char* waitingMessage;
    const char* timeoutMessage;
    const char* timeoutError;
};

constexpr JobTransition kStart = {
    kJobRunning, "CANNOT_START_SERVICE_ERR", "waiting for postgres to respond",
    "Timed out trying to start postgres.", "CANNOT_START_SERVICE_TIMEOUT_ERR"};
constexpr JobTransition kStop = {
    kJobStopped, "CANNOT_STOP_SERVICE_ERR", "waiting for postgres to stop",
    "Timed out trying to stop postgres.", "CANNOT_STOP_SERVICE_TIMEOUT_ERR"};

// Asks launchd for the job's new state, then waits for the server to follow: answering once the
// job runs, silent once it is stopped.
std::optional<PlistDictionary> moveJob(const PluginRequestHandler& handler,
                                       const JobTransition& transition) {
    if (!platform::setLaunchDaemonServiceState(kPostgresJobLabel, transition.jobState)) {
        return handler.responseForError(transition.refusedError);
    }
    const bool awaitResponding = transition.jobState == kJobRunning;
    if (waitUntilServer(awaitResponding, transition.waitingMessage) == WaitOutcome::Reached) {
        return std::nullopt;
    }
    logMessage(LOG_WARNING, "%s", transition.timeoutMessage);
    return handler.responseForError(transition.timeoutError);
}

}  // namespace

std::optional<PlistDictionary> PostgresRequestHandler::startServiceWithVariant(
    const PlistValue& variant) {
    if (!variantSkipsHousekeeping(variant)) {
        runHousekeeping(*this);
    }
    return moveJob(*this, kStart);
}

std::optional<PlistDictionary> PostgresRequestHandler::stopServiceWithVariant(
    const PlistValue& variant) {
    const bool skipHousekeeping = variantSkipsHousekeeping(variant);
    // Idle clients would keep the server from shutting down: they go first, whatever the variant.
    if (!shutDownIdleClients()) {
        logMessage(LOG_WARNING, "Unable to shut down idle clients, proceeding with service stop");
    }
    if (!skipHousekeeping) {
        runHousekeeping(*this);
    }
    return moveJob(*this, kStop);
}

std::optional<PlistDictionary> PostgresRequestHandler::recycleServiceWithVariant(
    const PlistValue&) {
    if (!platform::getLaunchDaemonServiceState(kPostgresJobLabel)) {
        return std::nullopt;
    }
    logMessage(LOG_WARNING, "Stopping/starting postgres to pick up settings change");
    // Recycle reports nothing, and a failed stop does not prevent the start.
    stopServiceWithVariant(PlistValue());
    startServiceWithVariant(PlistValue());
    return std::nullopt;
}

}  // namespace velnor::postgres
