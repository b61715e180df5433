#include "ConsoleMonitor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "Accounts.h"
#include "Explanations.h"
#include "Invocation.h"
#include "LaunchDaemon.h"
#include "Output.h"
#include "PluginLoader.h"
#include "ProcessStat.h"
#include "SafePath.h"
#include "ServiceFacts.h"
#include "SettingsCheck.h"

namespace velnor::host {
namespace {

constexpr std::size_t kKeptLogLines = 200;
// The most of the log read at once; a longer gap shows only its end.
constexpr std::uint64_t kMostLogRead = 64 * 1024;
constexpr std::int64_t kSampleSpan = 3600;
constexpr auto kLogPoll = std::chrono::seconds(1);

std::int64_t nowSeconds() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string readWhole(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream contents;
    contents << file.rdbuf();
    return contents.str();
}

std::int64_t bootTime() {
    std::istringstream stat(readWhole("/proc/stat"));
    std::string line;
    while (std::getline(stat, line)) {
        if (line.rfind("btime ", 0) == 0) {
            return std::atoll(line.c_str() + 6);
        }
    }
    return 0;
}

// A client as the console shows it: waiting idle, or inside a transaction, or active.
DatabaseClient databaseClientOf(const ClientTitle& title) {
    DatabaseClient client;
    client.pid = title.pid;
    client.user = title.user;
    client.database = title.database;
    const std::string& activity = title.state;
    if (activity == "idle" || activity.starts_with("idle in transaction")) {
        client.state = activity;
    } else {
        client.state = "active: " + activity;
    }
    return client;
}

// The clients among the processes that the account runs.
std::vector<DatabaseClient> clientsOf(uid_t account) {
    std::vector<DatabaseClient> clients;
    const std::int64_t boot = bootTime();
    const long ticks = sysconf(_SC_CLK_TCK);
    for (const ClientProcess& process : clientProcesses()) {
        if (process.owner != account) {
            continue;
        }
        DatabaseClient client = databaseClientOf(process.client);
        if (auto started = readProcessStat("/proc", client.pid); started && ticks > 0) {
            client.since = boot + static_cast<std::int64_t>(started->startTime) / ticks;
        }
        clients.push_back(std::move(client));
    }
    return clients;
}

// The socket and log folders that the housekeeping keeps in place, and whether they are there.
PlistValue foldersValue(const PlistValue& settings, const std::string& logPath) {
    const PlistDictionary* configuration = settings.asDictionary();
    const PlistValue* socket =
        configuration != nullptr ? configuration->find("unix_socket_directory") : nullptr;
    const std::string socketFolder =
        socket != nullptr && socket->asString() != nullptr ? *socket->asString() : "";
    const std::string logFolder = logPath.substr(0, logPath.rfind('/'));
    return PlistDictionary{{"socket", PlistValue(socketFolder)},
                           {"socketPresent", PlistValue::boolean(support::isFolder(socketFolder))},
                           {"log", PlistValue(logFolder)},
                           {"logPresent", PlistValue::boolean(support::isFolder(logFolder))}};
}

PlistValue sampleValue(const ConsoleSample& sample) {
    return PlistDictionary{{"time", PlistValue::integer(sample.time)},
                           {"connections", PlistValue::integer(sample.connections)},
                           {"running", PlistValue::boolean(sample.running)}};
}

PlistValue clientValue(const DatabaseClient& client) {
    return PlistDictionary{{"pid", PlistValue::integer(client.pid)},
                           {"user", PlistValue(client.user)},
                           {"database", PlistValue(client.database)},
                           {"state", PlistValue(client.state)},
                           {"since", PlistValue::integer(client.since)},
                           {"stopEnds", PlistValue::boolean(stopEnds(client))}};
}

}  // namespace

bool stopEnds(const DatabaseClient& client) {
    return client.state == "idle";
}

ConsoleMonitor::ConsoleMonitor(const PluginDescriptor& plugin, Worker& worker, EventHub& events,
                               std::function<PlistValue()> ledger)
    : plugin_(plugin), worker_(worker), events_(events), ledger_(std::move(ledger)) {
    thread_ = std::thread([this] { loop(); });
}

ConsoleMonitor::~ConsoleMonitor() {
    stop();
}

void ConsoleMonitor::ran(const std::string& what) {
    // The monitor's own questions change nothing and must not start another round of them.
    if (what == "getStateWithRequest" || what == "readSettingsWithRequest" ||
        what == "getLogPathsWithRequest") {
        return;
    }
    if (what.rfind("idle tick", 0) == 0) {
        takeSample();
    }
    {
        std::lock_guard lock(mutex_);
        refreshDue_ = true;
    }
    wake_.notify_one();
}

// On the worker's thread, right after the tick: the job's state straight from the host library
// (which the plug-in's own report rests on) and the clients in the process table. No plug-in
// call, so no housekeeping that nobody asked for, and the chart fills while no page is open.
void ConsoleMonitor::takeSample() {
    std::int64_t connections = 0;
    if (auto server = serverProgramOfJob(kServiceJobFile)) {
        if (auto account = support::lookUpUser(server->account)) {
            connections = static_cast<std::int64_t>(clientsOf(account->uid).size());
        }
    }
    const bool running = GetLaunchDaemonServiceState(kServiceLabel);
    const std::int64_t now = nowSeconds();
    std::lock_guard lock(mutex_);
    lastTick_ = now;
    samples_.push_back(ConsoleSample{now, connections, running});
    while (!samples_.empty() && samples_.front().time < now - kSampleSpan) {
        samples_.pop_front();
    }
}

void ConsoleMonitor::watch(bool opening) {
    {
        std::lock_guard lock(mutex_);
        watchers_ += opening ? 1 : -1;
        refreshDue_ = refreshDue_ || opening;
    }
    wake_.notify_one();
}

void ConsoleMonitor::refresh() {
    ran("console action");
}

PlistValue ConsoleMonitor::snapshot() {
    std::lock_guard lock(mutex_);
    return pictureLocked();
}

void ConsoleMonitor::stop() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void ConsoleMonitor::loop() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        wake_.wait_for(lock, kLogPoll,
                       [this] { return stopping_ || (refreshDue_ && watchers_ > 0); });
        if (stopping_) {
            break;
        }
        if (watchers_ == 0) {
            continue;
        }
        bool refreshing = refreshDue_;
        refreshDue_ = false;
        lock.unlock();
        // The top of the monitor's thread: a round that throws is logged, and the next one runs.
        try {
            if (refreshing) {
                refreshState();
            }
            followLog();
        } catch (const std::exception& exception) {
            ::syslog(LOG_ERR, "the web console could not follow the service: %s", exception.what());
        } catch (...) {
            ::syslog(LOG_ERR, "the web console could not follow the service");
        }
        lock.lock();
    }
}

std::optional<PlistDictionary> ConsoleMonitor::ask(const char* operation, PlistDictionary request) {
    const HostOperation* found = findOperation(plugin_, operation);
    if (found == nullptr) {
        return std::nullopt;
    }
    std::optional<Outcome> outcome = worker_.call(*found, std::move(request), nullptr);
    if (!outcome || !outcome->answered || outcome->result.asDictionary() == nullptr) {
        return std::nullopt;
    }
    return *outcome->result.asDictionary();
}

void ConsoleMonitor::refreshState() {
    std::optional<PlistDictionary> state =
        ask("getStateWithRequest", PlistDictionary{{"variant", PlistValue("withDetails")}});
    std::optional<PlistDictionary> settings = ask("readSettingsWithRequest", {});
    std::optional<PlistDictionary> logPaths = ask("getLogPathsWithRequest", {});
    std::vector<DatabaseClient> clients;
    if (auto server = serverProgramOfJob(kServiceJobFile)) {
        if (auto account = support::lookUpUser(server->account)) {
            clients = clientsOf(account->uid);
        }
    }
    std::lock_guard lock(mutex_);
    state_ = state ? PlistValue(*state) : PlistValue();
    const PlistValue* configuration = settings ? settings->find("configuration") : nullptr;
    settings_ = configuration != nullptr ? *configuration : PlistValue();
    const PlistValue* log = logPaths ? logPaths->find("log") : nullptr;
    logPath_ = log != nullptr && log->asString() != nullptr ? *log->asString() : std::string();
    clients_ = std::move(clients);
    folders_ = foldersValue(settings_, logPath_);
    events_.publish("state", pictureLocked());
}

// Reads what the server appended to its log since the last look. The log's folder belongs to
// the service account, so a link there is never followed, and only a regular file is read.
void ConsoleMonitor::followLog() {
    std::string path;
    {
        std::lock_guard lock(mutex_);
        path = logPath_;
    }
    if (path.empty()) {
        return;
    }
    auto opened = support::openSafely(path);
    if (!opened) {
        return;
    }
    auto file = support::reopen(opened->get(), O_RDONLY | O_NONBLOCK | O_CLOEXEC, path);
    struct stat status;
    if (!file || fstat(file->get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return;
    }
    const auto size = static_cast<std::uint64_t>(status.st_size);
    std::uint64_t from = logOffset_;
    if (status.st_ino != logInode_ || size < logOffset_) {
        from = 0;
    }
    if (size - from > kMostLogRead) {
        from = size - kMostLogRead;
    }
    std::string added(size - from, '\0');
    ssize_t got = pread(file->get(), added.data(), added.size(), static_cast<off_t>(from));
    if (got <= 0) {
        logInode_ = status.st_ino;
        return;
    }
    added.resize(static_cast<std::size_t>(got));
    // Only whole lines: the rest waits for its line feed.
    std::size_t lastFeed = added.rfind('\n');
    if (lastFeed == std::string::npos) {
        return;
    }
    added.resize(lastFeed + 1);
    logOffset_ = from + added.size();
    logInode_ = status.st_ino;
    PlistArray lines;
    std::istringstream stream(added);
    std::lock_guard lock(mutex_);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(PlistValue(line));
        logLines_.push_back(std::move(line));
        if (logLines_.size() > kKeptLogLines) {
            logLines_.pop_front();
        }
    }
    events_.publish("tail", PlistDictionary{{"lines", PlistValue(std::move(lines))}});
}

PlistValue ConsoleMonitor::pictureLocked() const {
    PlistArray clients;
    for (const DatabaseClient& client : clients_) {
        clients.push_back(clientValue(client));
    }
    PlistArray samples(samples_.size());
    std::transform(samples_.begin(), samples_.end(), samples.begin(), sampleValue);
    PlistArray log;
    for (const std::string& line : logLines_) {
        log.push_back(PlistValue(line));
    }
    PlistDictionary picture{{"logPath", PlistValue(logPath_)},
                            {"clients", PlistValue(std::move(clients))},
                            {"samples", PlistValue(std::move(samples))},
                            {"log", PlistValue(std::move(log))}};
    // What the plug-in has not answered yet is left out.
    for (const auto& [key, value] :
         {std::pair{"state", &state_}, {"settings", &settings_}, {"folders", &folders_}}) {
        if (!value->isAbsent()) {
            picture.set(key, *value);
        }
    }
    if (lastTick_) {
        picture.set("lastTick", PlistValue::integer(*lastTick_));
    }
    if (ledger_) {
        picture.set("ledger", ledger_());
    }
    return picture;
}

}  // namespace velnor::host
