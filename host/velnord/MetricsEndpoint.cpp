#include "MetricsEndpoint.h"

#include <httplib.h>
#include <signal.h>
#include <syslog.h>

#include <cerrno>
#include <string>

namespace velnor::host {
namespace {

// A scraper or two at a time; a scrape is answered in well under a millisecond.
constexpr std::size_t kServingThreads = 2;

constexpr const char* kExpositionType = "text/plain; version=0.0.4; charset=utf-8";

}  // namespace

MetricsEndpoint::MetricsEndpoint(const Metrics& metrics)
    : server_(std::make_unique<httplib::Server>()) {
    httplib::Server& server = *server_;
    server.new_task_queue = [] { return new httplib::ThreadPool(kServingThreads); };
    server.set_keep_alive_timeout(5);
    server.Get("/metrics", [&metrics](const httplib::Request&, httplib::Response& response) {
        response.set_content(metrics.exposition(), kExpositionType);
    });
    server.set_error_handler([](const httplib::Request&, httplib::Response& response) {
        if (response.body.empty()) {
            response.set_content("velnord serves GET /metrics here\n", "text/plain; charset=utf-8");
        }
    });
}

support::Result<std::unique_ptr<MetricsEndpoint>> MetricsEndpoint::start(const Metrics& metrics,
                                                                         const WebListen& listen) {
    std::unique_ptr<MetricsEndpoint> endpoint(new MetricsEndpoint(metrics));
    const std::string shown = listen.address + ":" + std::to_string(listen.port);
    errno = 0;
    if (!endpoint->server_->bind_to_port(listen.address, listen.port)) {
        // As for the console: the library leaves the bind's errno, and none for a name that it
        // could not resolve.
        const int error = errno;
        return error != 0 ? support::couldNot("listen on", shown, error)
                          : support::couldNot("listen on", shown, "the address cannot be bound");
    }
    endpoint->thread_ = std::thread([server = endpoint->server_.get()] {
        // A scraper that goes mid-answer is an error for this thread, never a SIGPIPE for the
        // daemon; the serving threads inherit the mask.
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
        // The top of the endpoint's thread: the endpoint may end, never the daemon.
        try {
            server->listen_after_bind();
        } catch (const std::exception& exception) {
            ::syslog(LOG_ERR, "the metrics endpoint stopped: %s", exception.what());
        } catch (...) {
            ::syslog(LOG_ERR, "the metrics endpoint stopped on an exception of an unknown type");
        }
    });
    return endpoint;
}

MetricsEndpoint::~MetricsEndpoint() {
    stop();
}

void MetricsEndpoint::stop() {
    server_->stop();
    if (thread_.joinable()) {
        thread_.join();
    }
}

}  // namespace velnor::host
