#include "MetricsEndpoint.h"

#include <httplib.h>

#include <string>

#include "HttpListener.h"

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
    if (support::Status bound = bindServer(*endpoint->server_, listen); !bound) {
        return bound.failure();
    }
    endpoint->thread_ = serveOnItsOwnThread(*endpoint->server_, "metrics endpoint");
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
