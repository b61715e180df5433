#include "WebConsole.h"

#include <httplib.h>
#include <signal.h>
#include <sys/socket.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>

#include "ChangeRecord.h"
#include "CommandLine.h"
#include "ConsoleCertificate.h"
#include "ConsoleRights.h"
#include "ExitStatus.h"
#include "HttpListener.h"
#include "Output.h"
#include "PasswordCheck.h"
#include "PeerAccount.h"
#include "PluginLoader.h"
#include "ServiceFacts.h"
#include "SettingsCheck.h"
#include "WebAssets.h"

namespace velnor::host {
namespace {

using httplib::Request;
using httplib::Response;

// Page loads and actions at once, plus the open event streams.
constexpr std::size_t kServingThreads = 12;
constexpr int kMostStreams = 6;
constexpr std::size_t kMostBody = 64 * 1024;
constexpr auto kStreamPause = std::chrono::seconds(10);
// Longer account names are no one's; the limit keeps the table of wrong guesses small.
constexpr std::size_t kLongestAccountName = 256;

constexpr const char* kSecurityPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
    "connect-src 'self'; form-action 'self'; frame-ancestors 'none'; base-uri 'none'";

void answerText(Response& response, int status, const std::string& text) {
    response.status = status;
    response.set_content(text + "\n", "text/plain; charset=utf-8");
}

void answerJson(Response& response, int status, const PlistValue& value) {
    response.status = status;
    response.set_content(toJson(value), "application/json");
}

// The value of the named cookie in the Cookie header, or empty.
std::string cookieNamed(const std::string& header, std::string_view name) {
    std::string_view rest = header;
    while (!rest.empty()) {
        std::size_t end = rest.find(';');
        std::string_view pair = rest.substr(0, end);
        while (!pair.empty() && pair.front() == ' ') {
            pair.remove_prefix(1);
        }
        if (pair.size() > name.size() && pair.substr(0, name.size()) == name &&
            pair[name.size()] == '=') {
            return std::string(pair.substr(name.size() + 1));
        }
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    return {};
}

// The result of an operation in words, for the page to show beside its code.
std::string wordsFor(const Outcome& outcome) {
    if (!outcome.answered) {
        return "the operation ended without a response: " + outcome.failure;
    }
    const PlistDictionary* response = outcome.result.asDictionary();
    const PlistValue* error = response != nullptr ? response->find("error") : nullptr;
    if (error == nullptr) {
        return "done";
    }
    const std::string code = error->asString() != nullptr ? *error->asString() : "";
    // The same words as the command line's, from the one table of them.
    if (std::optional<std::string_view> words = errorWords(code)) {
        return std::string(*words);
    }
    return "the plug-in refused: " + code;
}

PlistDictionary outcomeValue(const char* operation, const Outcome& outcome) {
    const PlistDictionary* response = outcome.result.asDictionary();
    const PlistValue* error = response != nullptr ? response->find("error") : nullptr;
    PlistDictionary value{{"operation", PlistValue(operation)},
                          {"answered", PlistValue::boolean(outcome.answered)},
                          {"ok", PlistValue::boolean(outcome.answered && error == nullptr)},
                          {"words", PlistValue(wordsFor(outcome))}};
    if (!outcome.result.isAbsent()) {
        value.set("response", outcome.result);
    }
    if (error != nullptr) {
        value.set("code", *error);
    }
    return value;
}

PlistValue verdictValue(const SettingVerdict& verdict) {
    return PlistDictionary{{"name", PlistValue(verdict.name)},
                           {"value", PlistValue(verdict.value)},
                           {"accepted", PlistValue::boolean(verdict.accepted)},
                           {"serverSays", PlistValue(verdict.serverSays)}};
}

PlistValue verdictsValue(const std::vector<SettingVerdict>& verdicts) {
    PlistArray list(verdicts.size());
    std::transform(verdicts.begin(), verdicts.end(), list.begin(), verdictValue);
    return list;
}

// The login page, saying why the last attempt did not get in (nothing on a first visit).
void answerLoginPage(Response& response, int status, const std::string& message) {
    std::string page(findWebAsset("/login.html")->body);
    const std::string mark = "{{message}}";
    page.replace(page.find(mark), mark.size(), message);
    response.status = status;
    response.set_content(page, "text/html; charset=utf-8");
}

void answerRetryAfter(Response& response, std::chrono::seconds wait) {
    response.set_header("Retry-After", std::to_string(wait.count()));
}

// Refuses, 403, a change that caller may not make; true when it may.
bool allowed(const Caller& caller, bool may, std::string_view change, Response& response) {
    if (may) {
        return true;
    }
    ::syslog(LOG_NOTICE, "the web console refused %s at %s: may not %s", caller.account.c_str(),
             caller.remoteAddress.c_str(), std::string(change).c_str());
    answerText(response, 403, "refused: " + caller.account + " may not " + std::string(change));
    return false;
}

// A login form posted from another site's page would log the browser in to an account of that
// site's choosing: when the browser names the page's origin, it must be this console's.
bool fromOurOrigin(const Request& request, bool tls) {
    if (!request.has_header("Origin")) {
        return true;
    }
    return request.get_header_value("Origin") ==
           std::string(tls ? "https://" : "http://") + request.get_header_value("Host");
}

// The settings that a form carries as repeated name and value fields, the empty names left out.
support::Result<std::vector<std::pair<std::string, std::string>>> formSettings(
    const Request& request) {
    const std::size_t count = request.get_param_value_count("name");
    if (count != request.get_param_value_count("value")) {
        return support::Failure{EINVAL, "every setting needs a name and a value"};
    }
    std::vector<std::pair<std::string, std::string>> settings;
    for (std::size_t index = 0; index < count; ++index) {
        std::string name = request.get_param_value("name", index);
        if (!name.empty()) {
            settings.emplace_back(std::move(name), request.get_param_value("value", index));
        }
    }
    if (settings.empty()) {
        return support::Failure{EINVAL, "no setting was given"};
    }
    return settings;
}

// Who sent a request, for the slowing of wrong tokens: the account behind a connection from this
// machine, and the address it came from.
TokenSender senderOf(const Request& request) {
    return TokenSender{peerAccount(Endpoint{request.remote_addr, request.remote_port},
                                   Endpoint{request.local_addr, request.local_port}),
                       request.remote_addr,
                       {}};
}

// Appends the action's record, before the page is answered; a record the trail could not take
// is logged by the trail, and root's action stands.
void finishRecord(ChangeRecord& record, const std::optional<Outcome>& outcome) {
    (void)record.finish(outcome ? support::Result<Outcome>(*outcome)
                                : support::Result<Outcome>(support::Failure{
                                      ECANCELED, "velnord is stopping; the call was not run"}));
}

// The console's port is its own: a second daemon, or any other program, that asks for it while
// the console holds it is refused rather than handed half its connections. The address is reused
// at once, so that a restarted daemon does not wait for the last one's connections to close.
void listenAlone(socket_t listener) {
    const int yes = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
}

// The library keeps its listening socket in a protected member, which a derived class may name:
// a socket that systemd handed over is put there instead of one the library binds.
struct ListenerAccess : httplib::Server {
    static void adopt(httplib::Server& server, socket_t listener) {
        server.*(&ListenerAccess::svr_sock_) = listener;
    }
};

// The server for the address: TLS with the console's certificate beyond this machine, plain HTTP
// on a loopback address. fingerprint receives the certificate's, or nothing.
support::Result<std::unique_ptr<httplib::Server>> serverFor(const WebListen& listen,
                                                            std::string& fingerprint) {
    fingerprint.clear();
    if (isLoopback(listen)) {
        return std::make_unique<httplib::Server>();
    }
    support::Result<ConsoleCertificate> identity = consoleCertificate(listen.address);
    if (!identity) {
        return identity.failure();
    }
    auto server =
        std::make_unique<httplib::SSLServer>(identity->certificate.get(), identity->key.get());
    if (!server->is_valid() ||
        SSL_CTX_set_min_proto_version(server->ssl_context(), TLS1_2_VERSION) != 1) {
        return support::couldNot("serve", "TLS", "OpenSSL refused the console's certificate");
    }
    fingerprint = identity->fingerprint;
    return std::unique_ptr<httplib::Server>(std::move(server));
}

// Binds the address, unless systemd handed over the socket already listening there.
support::Status bindOrAdopt(httplib::Server& server, const WebListen& listen,
                            std::optional<int> activated) {
    if (activated) {
        ListenerAccess::adopt(server, *activated);
        return {};
    }
    return bindServer(server, listen);
}

}  // namespace

support::Result<std::unique_ptr<WebConsole>> WebConsole::start(
    const PluginDescriptor& plugin, Worker& worker, const WebListen& listen,
    std::optional<int> activated, std::chrono::seconds idleTimeout, Metrics& metrics) {
    support::Result<std::string> token = randomHex(32);
    if (!token) {
        return token.failure();
    }
    std::string fingerprint;
    support::Result<std::unique_ptr<httplib::Server>> server = serverFor(listen, fingerprint);
    if (!server) {
        return server.failure();
    }
    std::unique_ptr<WebConsole> console(new WebConsole(plugin, worker, listen, *token, idleTimeout,
                                                       std::move(*server), !fingerprint.empty(),
                                                       metrics));
    if (support::Status bound = bindOrAdopt(*console->server_, listen, activated); !bound) {
        console->stop();
        return bound.failure();
    }
    if (support::Status published = publishAccess(*token, shownAddress(listen), fingerprint);
        !published) {
        console->stop();
        return published.failure();
    }
    console->thread_ = serveOnItsOwnThread(*console->server_, "web console");
    return console;
}

WebConsole::WebConsole(const PluginDescriptor& plugin, Worker& worker, WebListen listen,
                       std::string token, std::chrono::seconds idleTimeout,
                       std::unique_ptr<httplib::Server> server, bool tls, Metrics& metrics)
    : plugin_(plugin),
      worker_(worker),
      metrics_(metrics),
      listen_(std::move(listen)),
      tls_(tls),
      access_(std::move(token), idleTimeout),
      monitor_(plugin, worker, events_, [&metrics] { return metrics.ledgerFigures(); }),
      server_(std::move(server)) {
    route();
}

WebConsole::~WebConsole() {
    stop();
}

void WebConsole::stop() {
    events_.close();
    server_->stop();
    if (thread_.joinable()) {
        thread_.join();
    }
    monitor_.stop();
}

void WebConsole::route() {
    httplib::Server& server = *server_;
    server.new_task_queue = [] { return new httplib::ThreadPool(kServingThreads); };
    server.set_socket_options(listenAlone);
    server.set_payload_max_length(kMostBody);
    server.set_keep_alive_timeout(2);
    // No Access-Control header is ever sent: other origins' scripts cannot read an answer.
    server.set_default_headers({{"Content-Security-Policy", kSecurityPolicy},
                                {"X-Content-Type-Options", "nosniff"},
                                {"X-Frame-Options", "DENY"},
                                // Same-origin, not none: a browser names the page's origin on
                                // the login form's POST only when the policy lets it.
                                {"Referrer-Policy", "same-origin"},
                                {"Cache-Control", "no-store"}});
    // What went wrong stays in the daemon's log; the page learns only that it did.
    server.set_exception_handler(
        [](const Request& request, Response& response, std::exception_ptr thrown) {
            std::string what = "an unknown exception";
            try {
                std::rethrow_exception(thrown);
            } catch (const std::exception& exception) {
                what = exception.what();
            } catch (...) {
            }
            ::syslog(LOG_ERR, "the web console could not answer %s: %s", request.path.c_str(),
                     what.c_str());
            answerText(response, 500, "velnord could not answer; its log says why");
        });
    server.set_pre_routing_handler([this](const Request& request, Response& response) {
        return admitted(request, response) ? httplib::Server::HandlerResponse::Unhandled
                                           : httplib::Server::HandlerResponse::Handled;
    });
    server.Get(
        "/", [this](const Request& request, Response& response) { servePage(request, response); });
    server.Get("/login",
               [](const Request&, Response& response) { answerLoginPage(response, 200, ""); });
    server.Post("/login",
                [this](const Request& request, Response& response) { logIn(request, response); });
    server.Post("/api/logout",
                [this](const Request& request, Response& response) { logOut(request, response); });
    server.Get("/console.js|/console.css", [](const Request& request, Response& response) {
        const WebAsset* asset = findWebAsset(request.path);
        response.set_content(std::string(asset->body), std::string(asset->type));
    });
    server.Get("/api/snapshot", [this](const Request&, Response& response) {
        answerJson(response, 200, monitor_.snapshot());
    });
    server.Get("/api/events", [this](const Request& request, Response& response) {
        serveEvents(request, response);
    });
    server.Post("/api/service", [this](const Request& request, Response& response) {
        runService(request, response);
    });
    server.Post("/api/settings", [this](const Request& request, Response& response) {
        runSettings(request, response);
    });
    server.Post("/api/setup", [this](const Request& request, Response& response) {
        runSetup(request, response);
    });
}

// Who may go on to the routes: the right Host, then a session (or the way to one: the login
// page and its style, a login, the token), then, for every change, the session's CSRF token.
bool WebConsole::admitted(const Request& request, Response& response) {
    if (!hostIsOurs(request.get_header_value("Host"), listen_.address)) {
        answerText(response, 421, "refused: the Host header does not name this console");
        return false;
    }
    if (request.method != "GET" && request.method != "POST") {
        answerText(response, 405, "refused: the console answers GET and POST only");
        return false;
    }
    if (request.path == "/" && request.has_param("token")) {
        exchangeToken(request, response);
        return false;
    }
    if (request.path == "/login" || (request.method == "GET" && request.path == "/console.css")) {
        return true;
    }
    std::optional<Session> session = sessionOf(request);
    if (!session) {
        if (request.method == "GET" && request.path == "/") {
            response.set_redirect("/login", 303);
        } else {
            answerText(response, 401, "no session: log in first");
        }
        return false;
    }
    if (request.method == "POST" &&
        !sameSecret(request.get_header_value("X-CSRF-Token"), session->csrf)) {
        answerText(response, 403, "refused: the request lacks this session's CSRF token");
        return false;
    }
    return true;
}

std::optional<Session> WebConsole::sessionOf(const Request& request) {
    return access_.session(cookieNamed(request.get_header_value("Cookie"), kSessionCookie));
}

Caller WebConsole::callerOf(const Request& request) {
    std::optional<Session> session = sessionOf(request);
    Caller caller{0,
                  {},
                  0,
                  Channel::Console,
                  request.remote_addr + ":" + std::to_string(request.remote_port)};
    if (session) {
        caller.uid = session->uid;
        caller.account = session->account;
    }
    return caller;
}

std::string WebConsole::sessionCookie(const std::string& id) const {
    return std::string(kSessionCookie) + "=" + id + "; Path=/; HttpOnly; SameSite=Strict" +
           (tls_ ? "; Secure" : "");
}

// Root's way in without a password: the token that only root can read.
void WebConsole::exchangeToken(const Request& request, Response& response) {
    WebAccess::Exchange exchange =
        access_.exchange(request.get_param_value("token"), senderOf(request));
    if (exchange.session) {
        metrics_.consoleSessionOpened();
        response.set_header("Set-Cookie", sessionCookie(*exchange.session));
        response.set_redirect("/", 303);
    } else if (exchange.retryAfter) {
        answerRetryAfter(response, *exchange.retryAfter);
        answerText(response, 429, "refused: too many wrong tokens; try again later");
    } else {
        answerText(response, 403, "refused: wrong token");
    }
}

// The password is weighed with nothing held that another login needs: the stack may take
// seconds over a wrong one, and other accounts log in meanwhile.
void WebConsole::logIn(const Request& request, Response& response) {
    if (!fromOurOrigin(request, tls_)) {
        answerLoginPage(response, 403, "Refused: the form was sent from another site's page.");
        return;
    }
    TokenSender sender = senderOf(request);
    sender.login = request.get_param_value("account");
    // No account's name holds a control character, and one would forge lines in the log.
    const bool printable = std::none_of(sender.login.begin(), sender.login.end(), [](char c) {
        return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
    });
    if (sender.login.empty() || sender.login.size() > kLongestAccountName || !printable ||
        request.get_param_value("password").empty()) {
        answerLoginPage(response, 400, "Type your account's name and its password.");
        return;
    }
    if (std::optional<std::chrono::seconds> wait = access_.beginLogin(sender)) {
        answerRetryAfter(response, *wait);
        answerLoginPage(
            response, 429,
            "Too many wrong passwords: try again in " + std::to_string(wait->count()) + " s.");
        return;
    }
    support::Result<uid_t> checked =
        checkPassword(sender.login, request.get_param_value("password"), request.remote_addr);
    WebAccess::Exchange exchange =
        access_.finishLogin(sender, checked ? std::optional<uid_t>(*checked) : std::nullopt);
    if (!exchange.session) {
        ::syslog(LOG_NOTICE, "the web console refused a login from %s: %s",
                 request.remote_addr.c_str(),
                 checked ? "no session could be made" : checked.message().c_str());
        if (exchange.retryAfter) {
            answerRetryAfter(response, *exchange.retryAfter);
        }
        // The same words whatever was wrong: the page tells no one which accounts exist.
        answerLoginPage(response, 403, "Wrong account or password.");
        return;
    }
    ::syslog(LOG_NOTICE, "%s logged in to the web console from %s", sender.login.c_str(),
             request.remote_addr.c_str());
    metrics_.consoleSessionOpened();
    response.set_header("Set-Cookie", sessionCookie(*exchange.session));
    response.set_redirect("/", 303);
}

void WebConsole::logOut(const Request& request, Response& response) {
    access_.end(cookieNamed(request.get_header_value("Cookie"), kSessionCookie));
    response.set_header("Set-Cookie", std::string(kSessionCookie) +
                                          "=; Path=/; Max-Age=0; HttpOnly; SameSite=Strict" +
                                          (tls_ ? "; Secure" : ""));
    answerJson(
        response, 200,
        PlistDictionary{{"ok", PlistValue::boolean(true)}, {"words", PlistValue("logged out")}});
}

void WebConsole::servePage(const Request& request, Response& response) {
    std::optional<Session> session = sessionOf(request);
    std::string page(findWebAsset("/index.html")->body);
    if (session) {
        for (const auto& [mark, value] :
             {std::pair<std::string, std::string>{"{{csrf}}", session->csrf},
              {"{{account}}", session->account}}) {
            if (std::size_t at = page.find(mark); at != std::string::npos) {
                page.replace(at, mark.size(), value);
            }
        }
    }
    response.set_content(page, "text/html; charset=utf-8");
}

void WebConsole::serveEvents(const Request& request, Response& response) {
    if (++streams_ > kMostStreams) {
        --streams_;
        answerText(response, 503, "too many open pages; close one and reload");
        return;
    }
    // The library compresses every text/* answer when the browser allows it, and a compressed
    // stream would sit in the compressor instead of reaching the page: this one goes as it is.
    const_cast<Request&>(request).headers.erase("Accept-Encoding");
    auto cursor = std::make_shared<std::uint64_t>(events_.latest());
    const std::string id = cookieNamed(request.get_header_value("Cookie"), kSessionCookie);
    auto first = std::make_shared<std::string>(eventText("state", monitor_.snapshot()));
    monitor_.watch(true);
    response.set_header("X-Accel-Buffering", "no");
    response.set_chunked_content_provider(
        "text/event-stream",
        [this, cursor, first, id](std::size_t, httplib::DataSink& sink) {
            std::string text;
            if (!first->empty()) {
                text.swap(*first);
            } else {
                text = events_.waitAfter(cursor.get(), kStreamPause);
            }
            // An open page is no use of its session: the feed ends with the session.
            if (events_.closed() || !access_.stillOpen(id)) {
                sink.done();
                return true;
            }
            if (text.empty()) {
                text = ": still here\n\n";
            }
            return sink.write(text.data(), text.size());
        },
        [this](bool) {
            monitor_.watch(false);
            --streams_;
        });
}

bool WebConsole::answerCall(const Caller& caller, const char* operation, OperationArgument argument,
                            PlistDictionary extra, Response& response, ChangeRecord& record,
                            bool ends) {
    const HostOperation* found = findOperation(plugin_, operation);
    if (found == nullptr) {
        answerText(response, 404, std::string("the plug-in has no operation ") + operation);
        return false;
    }
    events_.publish("call", PlistDictionary{{"operation", PlistValue(operation)}});
    std::optional<Outcome> outcome =
        worker_.call(*found, std::move(argument), [this](int priority, const std::string& text) {
            events_.publish("message", PlistDictionary{{"priority", PlistValue::integer(priority)},
                                                       {"message", PlistValue(text)}});
        });
    const bool failed = !outcome || exitStatusFor(*outcome) != kExitNormal;
    record.ran(operation);
    if (failed || ends) {
        finishRecord(record, outcome);
    }
    if (!outcome) {
        answerText(response, 503, "velnord is stopping; the call was not run");
        return false;
    }
    PlistDictionary answer = outcomeValue(operation, *outcome);
    ::syslog(LOG_NOTICE, "%s ran %s from the web console at %s: %s", caller.account.c_str(),
             operation, caller.remoteAddress.c_str(), answer.find("words")->asString()->c_str());
    for (const auto& [key, value] : extra) {
        answer.set(key, value);
    }
    monitor_.refresh();
    answerJson(response, 200, answer);
    return !failed;
}

// The stored settings, read through the plug-in as the command line reads them before a write.
PlistValue WebConsole::storedSettings() {
    const HostOperation* read = findOperation(plugin_, "readSettingsWithRequest");
    std::optional<Outcome> outcome =
        read ? worker_.call(*read, PlistDictionary(), [](int, const std::string&) {})
             : std::nullopt;
    return outcome ? outcome->result : PlistValue();
}

void WebConsole::runService(const Request& request, Response& response) {
    const Caller caller = callerOf(request);
    if (!allowed(caller, rightsOf(caller).operate, "operate the service", response)) {
        return;
    }
    const std::string action = request.get_param_value("action");
    ChangeRecord record(caller, action, PlistValue());
    // The same operations as the command line's verbs: a restart that finds the service stopped
    // starts it, and a failed stop ends the restart with the stop's answer.
    std::span<const std::string_view> operations = serviceVerbOperations(action);
    for (std::size_t index = 0; index < operations.size(); ++index) {
        if (!answerCall(caller, std::string(operations[index]).c_str(), PlistValue(), {}, response,
                        record, index + 1 == operations.size())) {
            return;
        }
    }
    if (serviceVerbOperations(action).empty()) {
        answerText(response, 400, "the action is start, stop, restart or try-restart");
    }
}

// Each setting is first put to the server program itself; a refused one is shown with the
// server's own words and nothing is written.
void WebConsole::runSettings(const Request& request, Response& response) {
    const Caller caller = callerOf(request);
    if (!allowed(caller, rightsOf(caller).configure, "change the settings", response)) {
        return;
    }
    auto settings = formSettings(request);
    if (!settings) {
        answerText(response, 400, settings.message());
        return;
    }
    auto server = serverProgramOfJob(kServiceJobFile);
    auto verdicts = server ? checkSettings(*server, *settings)
                           : support::Result<std::vector<SettingVerdict>>(server.failure());
    if (!verdicts) {
        answerJson(response, 422,
                   PlistDictionary{{"ok", PlistValue::boolean(false)},
                                   {"words", PlistValue(verdicts.message())}});
        return;
    }
    bool refused = std::any_of(verdicts->begin(), verdicts->end(),
                               [](const SettingVerdict& verdict) { return !verdict.accepted; });
    if (refused || request.get_param_value("mode") == "check") {
        answerJson(response, refused ? 422 : 200,
                   PlistDictionary{{"ok", PlistValue::boolean(!refused)},
                                   {"words", PlistValue(refused ? "refused by the server; nothing "
                                                                  "was written"
                                                                : "the server accepts them")},
                                   {"verdicts", verdictsValue(*verdicts)}});
        return;
    }
    PlistDictionary configuration;
    for (const auto& [name, value] : *settings) {
        configuration.set(name, PlistValue(value));
    }
    PlistDictionary write{{"configuration", PlistValue(std::move(configuration))}};
    ChangeRecord record(caller, "settings", PlistValue(write));
    record.setChanges(settingChanges(storedSettings(), write));
    answerCall(caller, "writeSettingsWithRequest", std::move(write),
               PlistDictionary{{"verdicts", verdictsValue(*verdicts)}}, response, record, true);
}

void WebConsole::runSetup(const Request& request, Response& response) {
    const Caller caller = callerOf(request);
    if (!allowed(caller, rightsOf(caller).configure, "set the service up", response)) {
        return;
    }
    PlistDictionary setup;
    if (request.get_param_value("upgrade") == "true") {
        setup.set("upgrade", PlistValue::boolean(true));
    } else if (std::string location = request.get_param_value("dataLocation");
               !location.empty() && location.front() == '/') {
        setup.set("dataLocation", PlistValue(location));
    } else {
        answerText(response, 400, "set-up needs an absolute data folder, or the upgrade");
        return;
    }
    ChangeRecord record(caller, "setup", PlistValue(setup));
    answerCall(caller, "initialSetupWithRequest", std::move(setup), {}, response, record, true);
}

}  // namespace velnor::host
