// The web console: velnord serves a page on a loopback address that shows the service and
// drives it. Every action goes through the worker's queue exactly as a velnor call does, and
// the plug-in's messages reach the page as they are logged.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "ConsoleMonitor.h"
#include "Metrics.h"
#include "PluginInterface.h"
#include "Result.h"
#include "WebAccess.h"
#include "WebListen.h"
#include "Worker.h"

namespace httplib {
class Server;
class Request;
class Response;
}  // namespace httplib

namespace velnor::host {

class WebConsole {
  public:
    // Binds the address, writes the access token and starts serving. Fails when the address
    // cannot be bound or the token cannot be written.
    // Each session it opens is counted in metrics, whose ledger figures it shows.
    static support::Result<std::unique_ptr<WebConsole>> start(const PluginDescriptor& plugin,
                                                              Worker& worker,
                                                              const WebListen& listen,
                                                              Metrics& metrics);
    ~WebConsole();
    WebConsole(const WebConsole&) = delete;
    WebConsole& operator=(const WebConsole&) = delete;

    // What the worker ran; on the worker's thread.
    void ran(const std::string& what) { monitor_.ran(what); }
    void stop();

  private:
    WebConsole(const PluginDescriptor& plugin, Worker& worker, WebListen listen, std::string token,
               Metrics& metrics);
    void route();
    bool admitted(const httplib::Request& request, httplib::Response& response);
    void servePage(const httplib::Request& request, httplib::Response& response);
    void serveEvents(const httplib::Request& request, httplib::Response& response);
    void runService(const httplib::Request& request, httplib::Response& response);
    void runSettings(const httplib::Request& request, httplib::Response& response);
    void runSetup(const httplib::Request& request, httplib::Response& response);
    // Runs the operation and answers what came of it; true when it answered without an error.
    bool answerCall(const char* operation, OperationArgument argument, PlistDictionary extra,
                    httplib::Response& response);

    const PluginDescriptor& plugin_;
    Worker& worker_;
    Metrics& metrics_;
    const WebListen listen_;
    WebAccess access_;
    EventHub events_;
    ConsoleMonitor monitor_;
    std::unique_ptr<httplib::Server> server_;
    std::atomic<int> streams_{0};
    std::thread thread_;
};

}  // namespace velnor::host
