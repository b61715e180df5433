#include "PolkitAuthority.h"

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <cstring>
#include <utility>

namespace velnor::host {
namespace {

constexpr const char* kService = "org.freedesktop.PolicyKit1";
constexpr const char* kObject = "/org/freedesktop/PolicyKit1/Authority";
constexpr const char* kInterface = "org.freedesktop.PolicyKit1.Authority";
// CheckAuthorization's flags: none, so no authentication agent is ever asked for a password.
constexpr std::uint32_t kNoInteraction = 0;

// The answer of one question, kept until sd-bus lets go of the question's slot.
struct Asked {
    PolkitAnswer answer;
};

// The error names that mean nobody on the bus answers for polkit.
bool meansNoPolkit(const char* name) {
    return name != nullptr && (std::strcmp(name, SD_BUS_ERROR_SERVICE_UNKNOWN) == 0 ||
                               std::strcmp(name, SD_BUS_ERROR_NAME_HAS_NO_OWNER) == 0);
}

// The verdict in CheckAuthorization's reply: (is_authorized, is_challenge, details).
PolkitVerdict verdictOf(sd_bus_message* reply) {
    if (const sd_bus_error* error = sd_bus_message_get_error(reply)) {
        const std::string words = error->message != nullptr ? error->message : error->name;
        if (meansNoPolkit(error->name)) {
            return {PolkitVerdict::Kind::NoPolkit, "polkitd does not run: " + words};
        }
        return {PolkitVerdict::Kind::Failed, words};
    }
    int authorized = 0;
    int challenge = 0;
    int read = sd_bus_message_enter_container(reply, 'r', "bba{ss}");
    if (read >= 0) {
        read = sd_bus_message_read(reply, "bb", &authorized, &challenge);
    }
    if (read < 0) {
        return {PolkitVerdict::Kind::Failed,
                std::string("polkitd's answer could not be read: ") + std::strerror(-read)};
    }
    return {authorized != 0 ? PolkitVerdict::Kind::Allowed : PolkitVerdict::Kind::Refused, {}};
}

int onReply(sd_bus_message* reply, void* asked, sd_bus_error*) {
    // The answer may end the question, and with it this Asked: it is taken out first.
    PolkitAnswer answer = std::move(static_cast<Asked*>(asked)->answer);
    if (answer) {
        answer(verdictOf(reply));
    }
    return 1;
}

// CheckAuthorization(subject, action_id, details, flags, cancellation_id) about the process as
// a unix-process subject. The uid is the one the kernel vouched for at connect(), so that polkit
// decides for that account even if the pid has been given to another process meanwhile; the
// start time makes polkit refuse a process that is not the one that connected. This polkitd
// (122) knows no pidfd in a subject; the daemon checks its own pidfd once the answer is in.
int composeQuestion(sd_bus* bus, sd_bus_message** message, const PeerProcess& process,
                    std::string_view actionId) {
    int failed = sd_bus_message_new_method_call(bus, message, kService, kObject, kInterface,
                                                "CheckAuthorization");
    sd_bus_message* m = *message;
    const std::string action(actionId);
    if (failed >= 0) {
        failed = sd_bus_message_open_container(m, 'r', "sa{sv}");
    }
    if (failed >= 0) {
        failed = sd_bus_message_append(m, "sa{sv}", "unix-process", 3, "pid", "u",
                                       static_cast<std::uint32_t>(process.caller.pid), "start-time",
                                       "t", process.startTime, "uid", "i",
                                       static_cast<std::int32_t>(process.caller.uid));
    }
    if (failed >= 0) {
        failed = sd_bus_message_close_container(m);
    }
    if (failed >= 0) {
        failed = sd_bus_message_append(m, "sa{ss}us", action.c_str(), 0, kNoInteraction, "");
    }
    return failed;
}

}  // namespace

PolkitQuestion::~PolkitQuestion() {
    sd_bus_slot_unref(slot_);
}

PolkitQuestion::PolkitQuestion(PolkitQuestion&& other) noexcept
    : slot_(std::exchange(other.slot_, nullptr)) {}

PolkitQuestion& PolkitQuestion::operator=(PolkitQuestion&& other) noexcept {
    if (this != &other) {
        sd_bus_slot_unref(slot_);
        slot_ = std::exchange(other.slot_, nullptr);
    }
    return *this;
}

PolkitAuthority::PolkitAuthority(sd_event* event) : event_(sd_event_ref(event)) {}

PolkitAuthority::~PolkitAuthority() {
    sd_bus_close_unref(bus_);
    sd_event_unref(event_);
}

sd_bus* PolkitAuthority::bus(std::string& why) {
    if (bus_ != nullptr && sd_bus_is_open(bus_) > 0) {
        return bus_;
    }
    // Gone (the bus restarted) or never there: connected afresh.
    bus_ = sd_bus_close_unref(bus_);
    sd_bus* bus = nullptr;
    int failed = sd_bus_open_system(&bus);
    if (failed >= 0) {
        failed = sd_bus_attach_event(bus, event_, SD_EVENT_PRIORITY_NORMAL);
    }
    if (failed < 0) {
        why = std::string("no system bus: ") + std::strerror(-failed);
        sd_bus_unref(bus);
        return nullptr;
    }
    bus_ = bus;
    return bus_;
}

PolkitQuestion PolkitAuthority::check(const PeerProcess& process, std::string_view actionId,
                                      PolkitAnswer answer) {
    std::string why;
    sd_bus* connected = bus(why);
    if (connected == nullptr) {
        answer({PolkitVerdict::Kind::NoPolkit, why});
        return {};
    }
    sd_bus_message* message = nullptr;
    int failed = composeQuestion(connected, &message, process, actionId);
    auto* asked = new Asked{std::move(answer)};
    sd_bus_slot* slot = nullptr;
    if (failed >= 0) {
        failed = sd_bus_call_async(
            connected, &slot, message, onReply, asked,
            static_cast<std::uint64_t>(
                std::chrono::duration_cast<std::chrono::microseconds>(kPolkitDeadline).count()));
    }
    sd_bus_message_unref(message);
    if (failed < 0) {
        PolkitAnswer unasked = std::move(asked->answer);
        delete asked;
        unasked({PolkitVerdict::Kind::Failed,
                 std::string("could not send the question: ") + std::strerror(-failed)});
        return {};
    }
    sd_bus_slot_set_destroy_callback(slot, [](void* kept) { delete static_cast<Asked*>(kept); });
    return PolkitQuestion(slot);
}

}  // namespace velnor::host
