// What the daemon tells the service manager that started it (a Type=notify unit): that it is
// ready, what it ran last and when, and that it is stopping. Outside such a unit every notice is
// a no-op.
#pragma once

#include <mutex>
#include <string>

namespace velnor::host {

class ServiceManagerNotice {
  public:
    ServiceManagerNotice();

    void ready();
    // After each idle tick or call, on the worker's thread: what ran, for the unit's status.
    void ran(const std::string& what);
    void stopping();

  private:
    // Started by a service manager that listens: the time is not even looked up otherwise.
    const bool listened_;
    std::mutex mutex_;
    std::string lastTick_ = "none yet";
    std::string lastOperation_ = "none yet";
};

}  // namespace velnor::host
