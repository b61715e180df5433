// velnord: the host as a long-running daemon. It loads the service plug-in once, runs its class
// hook once, and then serves calls from the control socket one at a time (root's, and other
// accounts' as polkit allows), with the idle housekeeping every interval in between.
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ControlProtocol.h"
#include "ControlServer.h"
#include "ExitStatus.h"
#include "HostEnvironment.h"
#include "HostLock.h"
#include "HostLog.h"
#include "JobMoves.h"
#include "LaunchdJobs.h"
#include "Metrics.h"
#include "MetricsEndpoint.h"
#include "PluginLoader.h"
#include "RefusalRecorder.h"
#include "RestartLedger.h"
#include "RunAtLoad.h"
#include "ServiceManagerNotice.h"
#include "SocketActivation.h"
#include "SystemLog.h"
#include "WebConsole.h"
#include "Worker.h"

namespace velnor::host {
namespace {

constexpr const char* kDescription =
    "velnord loads a service plug-in once and serves calls of its operations on the control\n"
    "socket /run/velnor/velnord.sock, one at a time, running the plug-in's idle housekeeping\n"
    "(doIdleAtCount) every interval in between. velnor hands its command lines to it whenever\n"
    "velnord answers. Root may do anything; every other account is asked about through polkit\n"
    "(org.velnor.postgres.read, .operate, .configure), and only root is served without it.";

constexpr const char* kFooter =
    "velnord holds the host lock (/var/run/velnor/host.lock, or $VELNOR_LOCK_FILE) around each\n"
    "call of the plug-in, so that velnor --direct takes its turn between two calls, and the\n"
    "daemon lock (/run/velnor/velnord.lock) while it runs: one velnord serves at a time.\n"
    "SIGTERM or SIGINT lets the running operation finish, then velnord exits 0.";

// Held for the daemon's whole life, beside its control socket: a second velnord would take the
// socket's name from the first.
constexpr const char* kDaemonLockPath = "/run/velnor/velnord.lock";

struct Options {
    std::optional<std::string> pluginPath;
    std::chrono::duration<double> idleInterval{10.0};
    bool foreground = false;
    // The help text when --help was asked for: printed, and nothing runs.
    std::optional<std::string> help;
    std::optional<WebListen> web = WebListen{};
    std::chrono::seconds webIdleTimeout = kDefaultIdleTimeout;
    std::optional<WebListen> metrics = kDefaultMetricsListen;
};

void complain(const std::string& message) {
    std::fprintf(stderr, "velnord: %s\n", message.c_str());
}

// A positive number of seconds up to a day, a fraction allowed.
std::optional<double> secondsIn(std::string_view text) {
    double seconds = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (text.empty() || error != std::errc() || end != text.data() + text.size() ||
        !(seconds > 0) || seconds > 86400) {
        return std::nullopt;
    }
    return seconds;
}

// The options as typed, before they are checked together.
struct Typed {
    std::string plugin;
    std::string idleInterval;
    std::string webListen;
    std::string webIdleTimeout;
    bool noWeb = false;
    std::string metricsListen;
    bool noMetrics = false;
};

void addOptions(CLI::App& app, Options& options, Typed& typed) {
    app.add_option("--plugin", typed.plugin,
                   "the plug-in module to load; else $VELNOR_PLUGIN, else the one installed "
                   "with velnord")
        ->type_name("PATH")
        ->check([](const std::string& value) {
            return value.empty() ? std::string("needs a path") : std::string();
        });
    app.add_option("--idle-interval", typed.idleInterval,
                   "seconds between idle ticks (default 10; a fraction is allowed)")
        ->type_name("SECONDS")
        ->check([](const std::string& value) {
            return secondsIn(value) ? std::string()
                                    : std::string("needs seconds above 0, at most a day");
        });
    app.add_flag("--foreground", options.foreground,
                 "also print every log message on standard error");
    CLI::Option* listen =
        app.add_option("--web-listen", typed.webListen,
                       "serve the web console there (default 127.0.0.1:8471); the address with "
                       "its access token: velnor web-url")
            ->type_name("ADDR:PORT");
    CLI::Option* idle =
        app.add_option("--web-idle-timeout", typed.webIdleTimeout,
                       "end a console session left unused this long (default 900, 15 minutes)")
            ->type_name("SECONDS")
            ->check([](const std::string& value) {
                std::optional<double> seconds = secondsIn(value);
                return seconds && *seconds >= 1 ? std::string()
                                                : std::string("needs seconds from 1 to a day");
            });
    app.add_flag("--no-web", typed.noWeb, "no web console")->excludes(listen)->excludes(idle);
    CLI::Option* metrics =
        app.add_option("--metrics-listen", typed.metricsListen,
                       "serve GET /metrics for Prometheus there (default 127.0.0.1:8472)")
            ->type_name("ADDR:PORT");
    app.add_flag("--no-metrics", typed.noMetrics, "no metrics endpoint")->excludes(metrics);
}

support::Result<Options> parseOptions(int argc, char** argv) {
    Options options;
    Typed typed;
    CLI::App app(kDescription, "velnord");
    app.footer(kFooter);
    addOptions(app, options, typed);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        options.help = app.help();
        return options;
    } catch (const CLI::ParseError& error) {
        return support::Failure{EINVAL, error.what()};
    }
    if (!typed.plugin.empty()) {
        options.pluginPath = typed.plugin;
    }
    if (!typed.idleInterval.empty()) {
        options.idleInterval = std::chrono::duration<double>(*secondsIn(typed.idleInterval));
    }
    if (!typed.webIdleTimeout.empty()) {
        options.webIdleTimeout =
            std::chrono::seconds(static_cast<long>(*secondsIn(typed.webIdleTimeout)));
    }
    if (typed.noWeb) {
        options.web.reset();
    } else if (!typed.webListen.empty()) {
        support::Result<WebListen> listen = parseWebListen(typed.webListen);
        if (!listen) {
            return listen.failure();
        }
        options.web = *listen;
    }
    if (typed.noMetrics) {
        options.metrics.reset();
    } else if (!typed.metricsListen.empty()) {
        support::Result<WebListen> listen = parseWebListen(typed.metricsListen, "--metrics-listen");
        if (!listen) {
            return listen.failure();
        }
        options.metrics = *listen;
    }
    return options;
}

// SIGTERM and SIGINT, blocked in every thread before any starts, so that only the event loop
// sees them (through its own signal descriptor) and the daemon stops between operations, never
// inside one.
support::Status blockStopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    if (pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0) {
        return support::couldNot("block", "SIGTERM", errno);
    }
    return {};
}

// Every message of the plug-in and the host library goes to the daemon's log and, during a
// call, to the client that made it.
void relayLogMessages(Worker& worker, Metrics& metrics) {
    setLogSink([&worker, &metrics](int priority, const std::string& message) {
        ::syslog(priority, "%s", message.c_str());
        worker.relay(priority, message);
        metrics.logged(message);
    });
}

// The console is a convenience: when its address cannot be had, the daemon serves on without it.
// A socket that systemd handed over is where it listens, whatever --web-listen says.
std::unique_ptr<WebConsole> startWebConsole(const Options& options,
                                            const std::optional<ActivatedSocket>& activated,
                                            const PluginDescriptor& plugin, Worker& worker,
                                            Metrics& metrics) {
    if (!options.web) {
        return nullptr;
    }
    support::Result<std::unique_ptr<WebConsole>> console =
        activated ? WebConsole::start(plugin, worker, activated->listen, activated->descriptor,
                                      options.webIdleTimeout, metrics)
                  : WebConsole::start(plugin, worker, *options.web, std::nullopt,
                                      options.webIdleTimeout, metrics);
    if (!console) {
        ::syslog(LOG_WARNING, "the web console is off: %s", console.message().c_str());
        if (activated) {
            close(activated->descriptor);
        }
        return nullptr;
    }
    return std::move(*console);
}

// The metrics endpoint is a convenience too: without its address the daemon serves on.
std::unique_ptr<MetricsEndpoint> startMetricsEndpoint(const Options& options,
                                                      const Metrics& metrics) {
    if (!options.metrics) {
        return nullptr;
    }
    support::Result<std::unique_ptr<MetricsEndpoint>> endpoint =
        MetricsEndpoint::start(metrics, *options.metrics);
    if (!endpoint) {
        ::syslog(LOG_WARNING, "the metrics endpoint is off: %s", endpoint.message().c_str());
        return nullptr;
    }
    return std::move(*endpoint);
}

// The ledger as the daemon before this one left it. One that cannot be read is told and
// started again from nothing: counts that cannot be trusted are no counts.
RestartLedger loadRestartLedger() {
    support::Result<RestartLedger> ledger = readLedgerFile(kRestartLedgerPath);
    if (!ledger) {
        ::syslog(LOG_ERR, "%s; the restart ledger starts again from nothing",
                 ledger.message().c_str());
        return {};
    }
    return std::move(*ledger);
}

// What the daemon ran in its life, for its log and the benchmark that reads it.
void logCounts(const WorkerCounts& counts) {
    ::syslog(LOG_INFO, "ran %llu calls, %llu idle ticks and %llu state queries at stop deadlines",
             static_cast<unsigned long long>(counts.calls),
             static_cast<unsigned long long>(counts.ticks),
             static_cast<unsigned long long>(counts.stopQueries));
}

int serve(const Options& options, const std::optional<ActivatedSocket>& activated,
          const PluginModule& module, const HostLock& hostLock, const std::string& pluginPath,
          ServiceManagerNotice& notice, Metrics& metrics) {
    if (support::Status blocked = blockStopSignals(); !blocked) {
        complain(blocked.message());
        return kExitUnavailable;
    }
    support::Result<support::UniqueFd> listener = listenOnControlSocket(kControlSocketPath);
    if (!listener) {
        complain(listener.message());
        return kExitNoLock;
    }
    const PluginDescriptor& plugin = module.descriptor();
    std::atomic<WebConsole*> console = nullptr;
    LoopInbox inbox;
    // Set before the loop runs, which is the only place the worker's deadlines are read.
    ControlServer* server = nullptr;
    Worker worker(
        plugin, hostLock, findOperation(plugin, "doIdleAtCount"),
        std::chrono::duration_cast<std::chrono::microseconds>(options.idleInterval),
        [&notice, &console](const std::string& what) {
            notice.ran(what);
            if (WebConsole* web = console.load()) {
                web->ran(what);
            }
        },
        [] { return LaunchdJobs::onThisMachine().pendingStops(); },
        [&inbox, &server](std::optional<StopDeadline> deadline) {
            inbox.post(
                [&server, deadline = std::move(deadline)] { server->setStopDeadline(deadline); });
        },
        &metrics);
    relayLogMessages(worker, metrics);
    std::unique_ptr<MetricsEndpoint> endpoint = startMetricsEndpoint(options, metrics);
    std::unique_ptr<WebConsole> web = startWebConsole(options, activated, plugin, worker, metrics);
    console = web.get();
    RefusalRecorder refusals;
    // Each refusal is counted, and recorded in the trail (which tells the system log too).
    auto refused = [&refusals, &metrics](const Caller& caller, std::string_view verb,
                                         std::string_view action, std::string_view reason) {
        metrics.requestRefused(RefusalReason::NotAllowed);
        refusals.record(caller, verb, action, reason);
    };
    support::Result<std::unique_ptr<ControlServer>> created =
        ControlServer::create(plugin, pluginPath, worker, inbox, std::move(*listener), refused);
    support::Status served = created.ok() ? support::Status() : support::Status(created.failure());
    if (created) {
        server = created->get();
        server->reportMalformedTo([&metrics] { metrics.requestRefused(RefusalReason::Malformed); });
        notice.ready();
        served = server->serve();
    }
    notice.stopping();
    unlink(kControlSocketPath);
    if (web) {
        web->stop();
    }
    if (endpoint) {
        endpoint->stop();
    }
    worker.stop();
    if (server != nullptr) {
        server->finish();
    }
    setLogSink(nullptr);
    logCounts(worker.counts());
    if (!served) {
        complain(served.message());
        return kExitUnavailable;
    }
    return kExitNormal;
}

// The class hook, then the jobs that run at load, as launchd starts them at boot before the
// first call is served; under the host lock, since both reach the plug-in or the job files.
// The exit status when the daemon cannot serve.
std::optional<int> startUp(const PluginModule& module, const HostLock& hostLock, Metrics& metrics) {
    LockWait wait;
    wait.announce = [&hostLock](const std::string& holder) {
        complain("waiting for the host lock \"" + hostLock.path() + "\" held by " + holder);
    };
    support::Result<HostLock::Held> held = hostLock.hold(wait);
    if (!held) {
        complain(held.message());
        return kExitNoLock;
    }
    if (std::optional<std::string> failure = initializePlugin(module.descriptor())) {
        complain("the plug-in's initialize failed: " + *failure);
        return kExitUnavailable;
    }
    metrics.atLoadBegan();
    startJobsThatRunAtLoad(kRunAtLoadFolder);
    metrics.atLoadEnded();
    return std::nullopt;
}

int run(const Options& options) {
    if (geteuid() != 0) {
        complain("must be run as root");
        return kExitNotRoot;
    }
    setDefaultPostgresEnvironment();
    // The daemon writes to its clients' output, which may be a pipe whose reader has gone: that
    // is an error for the one command, not a signal that ends the daemon. Jobs it starts get
    // default signal handling back.
    signal(SIGPIPE, SIG_IGN);
    support::openSystemLog("velnord", LOG_PID | (options.foreground ? LOG_PERROR : 0), LOG_DAEMON);
    // Taken before any thread starts, and before the jobs at load, which must not inherit it.
    support::Result<std::optional<ActivatedSocket>> activated = consoleSocketFromSystemd();
    if (!activated) {
        ::syslog(LOG_WARNING, "the web console is off: %s", activated.message().c_str());
    } else if (*activated && !options.web) {
        close((*activated)->descriptor);
        activated->reset();
    }
    std::string pluginPath = choosePluginPath(options.pluginPath, std::getenv("VELNOR_PLUGIN"),
                                              VELNOR_PLUGIN_FROM_PROGRAM);
    support::Result<std::unique_ptr<PluginModule>> module = PluginModule::open(pluginPath);
    if (!module) {
        complain(module.message());
        return kExitUnavailable;
    }
    support::Result<HostLock> daemonLock = HostLock::open(kDaemonLockPath, "daemon lock");
    std::optional<HostLock::Held> serving;
    if (daemonLock) {
        serving = daemonLock->holdIfFree();
    }
    if (!serving) {
        complain(daemonLock ? "could not take the daemon lock \"" + daemonLock->path() +
                                  "\": " + daemonLock->holder() +
                                  " holds it, and one velnord serves at a time"
                            : daemonLock.message());
        return kExitNoLock;
    }
    support::Result<HostLock> hostLock =
        HostLock::open(hostLockPath(std::getenv("VELNOR_LOCK_FILE")));
    if (!hostLock) {
        complain(hostLock.message());
        return kExitNoLock;
    }
    // Every start and stop of the service, whoever asks for it, goes to the ledger.
    // The idle ticks sample the service's process and connections only for a scraper to see.
    Metrics metrics(loadRestartLedger(), kRestartLedgerPath,
                    options.metrics ? sampleService : std::function<ServiceSample()>());
    watchJobMoves([&metrics](const JobMove& move) { metrics.jobMoved(move); });
    std::optional<int> status = startUp(**module, *hostLock, metrics);
    if (!status) {
        ServiceManagerNotice notice;
        status = serve(options, activated ? *activated : std::nullopt, **module, *hostLock,
                       pluginPath, notice, metrics);
    }
    watchJobMoves(nullptr);
    return *status;
}

}  // namespace
}  // namespace velnor::host

int main(int argc, char** argv) {
    using namespace velnor::host;
    velnor::support::Result<Options> options = parseOptions(argc, argv);
    if (!options) {
        complain(options.message());
        std::fputs("Try velnord --help.\n", stderr);
        return kExitUsage;
    }
    if (options->help) {
        std::fputs(options->help->c_str(), stdout);
        return kExitNormal;
    }
    return run(*options);
}
