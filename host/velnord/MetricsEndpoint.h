// The metrics endpoint: GET /metrics on a listener of its own, answered from the figures that
// Metrics holds. It never reaches the worker or the plug-in, so a scrape answers at once even
// while a start waits for the server.
#pragma once

#include <memory>
#include <thread>

#include "Metrics.h"
#include "Result.h"
#include "WebListen.h"

namespace httplib {
class Server;
}

namespace velnor::host {

class MetricsEndpoint {
  public:
    // Binds the address and starts serving; fails, saying why, when it cannot be bound.
    static support::Result<std::unique_ptr<MetricsEndpoint>> start(const Metrics& metrics,
                                                                   const WebListen& listen);
    ~MetricsEndpoint();
    MetricsEndpoint(const MetricsEndpoint&) = delete;
    MetricsEndpoint& operator=(const MetricsEndpoint&) = delete;

    void stop();

  private:
    explicit MetricsEndpoint(const Metrics& metrics);

    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
};

}  // namespace velnor::host
