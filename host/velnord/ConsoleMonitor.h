// What the web console shows and keeps up to date: the service's state, settings and log path
// as the plug-in reports them (asked through the worker's queue like any call), the database
// clients, the end of the server's log, and a history of connections and state sampled on each
// idle tick. Changes go out as events to every open page.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "EventHub.h"
#include "PlistValue.h"
#include "PluginInterface.h"
#include "Worker.h"

namespace velnor::host {

// A database client as its server process's title tells it: "postgres: USER DB HOST ACTIVITY".
struct DatabaseClient {
    pid_t pid = 0;
    std::string user;
    std::string database;
    std::string state;       // "idle", "idle in transaction", or "active: COMMAND"
    std::int64_t since = 0;  // when its process started, in seconds since 1970
};

// A stop ends the clients that wait idle; one inside a transaction or running a command keeps
// the server running until it finishes.
bool stopEnds(const DatabaseClient& client);

// What each idle tick records for the chart.
struct ConsoleSample {
    std::int64_t time;  // seconds since 1970
    std::int64_t connections;
    bool running;
};

class ConsoleMonitor {
  public:
    // ledger gives the restart ledger's figures, shown beside the state.
    ConsoleMonitor(const PluginDescriptor& plugin, Worker& worker, EventHub& events,
                   std::function<PlistValue()> ledger);
    ~ConsoleMonitor();
    ConsoleMonitor(const ConsoleMonitor&) = delete;
    ConsoleMonitor& operator=(const ConsoleMonitor&) = delete;

    // Told by the worker what it ran: an idle tick takes a sample, any other call that may have
    // changed something refreshes the state.
    void ran(const std::string& what);
    // Refreshes now, as after a console action.
    void refresh();
    // A page opens (true) or closes its feed. The monitor asks the plug-in anything only while
    // a page watches: its questions run the plug-in's housekeeping, which nobody asked for.
    void watch(bool opening);
    // The whole picture as one value, for a page that has just opened.
    PlistValue snapshot();
    void stop();

  private:
    void loop();
    void refreshState();
    void takeSample();
    std::optional<PlistDictionary> ask(const char* operation, PlistDictionary request);
    void followLog();
    PlistValue pictureLocked() const;

    const PluginDescriptor& plugin_;
    Worker& worker_;
    EventHub& events_;
    const std::function<PlistValue()> ledger_;

    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    int watchers_ = 0;
    bool refreshDue_ = true;
    PlistValue state_;
    PlistValue settings_;
    std::string logPath_;
    PlistValue folders_;
    std::vector<DatabaseClient> clients_;
    std::deque<ConsoleSample> samples_;
    std::optional<std::int64_t> lastTick_;
    std::deque<std::string> logLines_;
    // Where the log was read up to, and which file it was.
    std::uint64_t logOffset_ = 0;
    std::uint64_t logInode_ = 0;
    std::thread thread_;
};

}  // namespace velnor::host
