// The web console: velnord serves a page that shows the service and drives it, to the accounts
// that log in to it. Every action goes through the worker's queue exactly as a velnor call does,
// and the plug-in's messages reach the page as they are logged.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "Caller.h"
#include "ChangeRecord.h"
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
    // Binds the address (or serves on activated, the socket that systemd handed over, listening
    // there), over TLS unless the address is loopback, writes the access token and starts
    // serving; a session ends when left unused for idleTimeout. Fails when the address cannot be
    // bound, the certificate cannot be had or the token cannot be written. Each session it opens
    // is counted in metrics, whose ledger figures it shows.
    static support::Result<std::unique_ptr<WebConsole>> start(
        const PluginDescriptor& plugin, Worker& worker, const WebListen& listen,
        std::optional<int> activated, std::chrono::seconds idleTimeout, Metrics& metrics);
    ~WebConsole();
    WebConsole(const WebConsole&) = delete;
    WebConsole& operator=(const WebConsole&) = delete;

    // What the worker ran; on the worker's thread.
    void ran(const std::string& what) { monitor_.ran(what); }
    void stop();

  private:
    WebConsole(const PluginDescriptor& plugin, Worker& worker, WebListen listen, std::string token,
               std::chrono::seconds idleTimeout, std::unique_ptr<httplib::Server> server, bool tls,
               Metrics& metrics);
    void route();
    bool admitted(const httplib::Request& request, httplib::Response& response);
    // The session that the request's cookie names, its use counted; nullopt when there is none.
    std::optional<Session> sessionOf(const httplib::Request& request);
    // Who made the request in the session: its account, on the console, from the peer's address.
    Caller callerOf(const httplib::Request& request);
    void exchangeToken(const httplib::Request& request, httplib::Response& response);
    void logIn(const httplib::Request& request, httplib::Response& response);
    void logOut(const httplib::Request& request, httplib::Response& response);
    // The Set-Cookie value that hands the browser the session id, Secure when served over TLS.
    std::string sessionCookie(const std::string& id) const;
    void servePage(const httplib::Request& request, httplib::Response& response);
    void serveEvents(const httplib::Request& request, httplib::Response& response);
    void runService(const httplib::Request& request, httplib::Response& response);
    void runSettings(const httplib::Request& request, httplib::Response& response);
    void runSetup(const httplib::Request& request, httplib::Response& response);
    // Runs the operation for caller and answers what came of it; true when it answered without
    // an error. The operation is added to the action's record, which is appended once it fails
    // or when it ends the action.
    bool answerCall(const Caller& caller, const char* operation, OperationArgument argument,
                    PlistDictionary extra, httplib::Response& response, ChangeRecord& record,
                    bool ends);
    PlistValue storedSettings();

    const PluginDescriptor& plugin_;
    Worker& worker_;
    Metrics& metrics_;
    const WebListen listen_;
    // Whether the console speaks TLS: its cookies are then sent over TLS only.
    const bool tls_;
    WebAccess access_;
    EventHub events_;
    ConsoleMonitor monitor_;
    std::unique_ptr<httplib::Server> server_;
    std::atomic<int> streams_{0};
    std::thread thread_;
};

}  // namespace velnor::host
