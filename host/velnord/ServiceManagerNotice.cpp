#include "ServiceManagerNotice.h"

#include <systemd/sd-daemon.h>

#include <cstdlib>
#include <ctime>

namespace velnor::host {
namespace {

// The local time now, as the status line shows it.
std::string timeNow() {
    std::time_t now = std::time(nullptr);
    std::tm local{};
    char text[32] = "";
    if (localtime_r(&now, &local) != nullptr) {
        std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
    }
    return text;
}

}  // namespace

ServiceManagerNotice::ServiceManagerNotice() : listened_(std::getenv("NOTIFY_SOCKET") != nullptr) {}

void ServiceManagerNotice::ready() {
    sd_notify(0, "READY=1\nSTATUS=serving; no idle tick or operation yet");
}

void ServiceManagerNotice::ran(const std::string& what) {
    if (!listened_) {
        return;
    }
    std::lock_guard lock(mutex_);
    std::string when = timeNow();
    if (what.starts_with("idle tick")) {
        lastTick_ = when + (what == "idle tick" ? "" : " (" + what + ")");
    } else {
        lastOperation_ = what + " at " + when;
    }
    sd_notify(
        0, ("STATUS=last idle tick " + lastTick_ + "; last operation " + lastOperation_).c_str());
}

void ServiceManagerNotice::stopping() {
    sd_notify(0, "STOPPING=1\nSTATUS=stopping once the running operation ends");
}

}  // namespace velnor::host
