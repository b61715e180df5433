#include "LaunchdSystemd.h"

#include <dlfcn.h>
#include <signal.h>
#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <string_view>

#include "Deadline.h"
#include "HostLog.h"
#include "JobLaunch.h"
#include "LaunchdJob.h"
#include "LaunchdJobs.h"
#include "LoadOnce.h"
#include "PathNames.h"
#include "ProcessStat.h"
#include "Result.h"
#include "SafePath.h"
#include "UniqueFd.h"

namespace velnor {
namespace {

constexpr std::string_view kUnitPrefix = "velnor-launchd-";
constexpr std::string_view kUnitSuffix = ".service";
// systemd takes unit names of up to 255 bytes.
constexpr std::size_t kLongestUnitName = 255;

constexpr const char* kSystemd = "org.freedesktop.systemd1";
constexpr const char* kSystemdPath = "/org/freedesktop/systemd1";
constexpr const char* kManager = "org.freedesktop.systemd1.Manager";
constexpr const char* kUnitInterface = "org.freedesktop.systemd1.Unit";
constexpr const char* kServiceInterface = "org.freedesktop.systemd1.Service";
constexpr const char* kJobInterface = "org.freedesktop.systemd1.Job";
constexpr const char* kNoSuchUnit = "org.freedesktop.systemd1.NoSuchUnit";
constexpr const char* kUnknownObject = "org.freedesktop.DBus.Error.UnknownObject";
constexpr const char* kUnitExists = "org.freedesktop.systemd1.UnitExists";
// As root, systemd answers on its own socket even where no message bus runs.
constexpr const char* kSystemdPrivateSocket = "unix:path=/run/systemd/private";

// How often a start looks whether the old unit has gone; beyond the old unit's stop timeout it
// waits kKillSettleMilliseconds for systemd to have killed and forgotten it.
constexpr long kGonePollMilliseconds = 20;
constexpr std::uint64_t kMicrosecondsPerSecond = 1000000;

bool isUnescapedByte(char byte, bool first) {
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
           (byte >= '0' && byte <= '9') || byte == ':' || byte == '_' || (byte == '.' && !first);
}

// libsystemd's bus functions, loaded the first time a job is handed to systemd: the library and
// what it brings along (compression and cryptography libraries) cost every program that links
// this library milliseconds at start-up, and most runs never speak to systemd.
// clang-format off
#define VELNOR_SD_BUS_FUNCTIONS(X) \
    X(sd_bus_call) \
    X(sd_bus_call_method) \
    X(sd_bus_error_free) \
    X(sd_bus_error_has_name) \
    X(sd_bus_flush_close_unref) \
    X(sd_bus_get_property) \
    X(sd_bus_get_property_string) \
    X(sd_bus_get_property_trivial) \
    X(sd_bus_message_append) \
    X(sd_bus_message_append_strv) \
    X(sd_bus_message_close_container) \
    X(sd_bus_message_new_method_call) \
    X(sd_bus_message_open_container) \
    X(sd_bus_message_read) \
    X(sd_bus_message_unref) \
    X(sd_bus_new) \
    X(sd_bus_open_system) \
    X(sd_bus_set_address) \
    X(sd_bus_start)
// clang-format on

struct SdBus {
#define VELNOR_SD_BUS_POINTER(name) decltype(&::name) name = nullptr;
    VELNOR_SD_BUS_FUNCTIONS(VELNOR_SD_BUS_POINTER)
#undef VELNOR_SD_BUS_POINTER
};

constexpr const char* kLibsystemdName = "libsystemd.so.0";

support::Result<SdBus> loadLibsystemd() {
    support::Result<void*> opened = support::openLibrary(kLibsystemdName);
    if (!opened) {
        return opened.failure();
    }
    void* library = *opened;
    SdBus functions;
    bool resolved = true;
#define VELNOR_SD_BUS_RESOLVE(name)                                              \
    functions.name = reinterpret_cast<decltype(&::name)>(dlsym(library, #name)); \
    resolved = resolved && functions.name != nullptr;
    VELNOR_SD_BUS_FUNCTIONS(VELNOR_SD_BUS_RESOLVE)
#undef VELNOR_SD_BUS_RESOLVE
    if (!resolved) {
        return support::couldNot("load", kLibsystemdName, "it lacks a bus function");
    }
    return functions;
}

// The library once loaded, or why it cannot be yet.
support::Result<const SdBus*> libsystemd() {
    static support::LoadOnce<SdBus> library(loadLibsystemd);
    return library.get();
}

// Only where a bus is open, which connectToSystemd opens only once the library is loaded.
const SdBus& sdBus() {
    return **libsystemd();
}

struct BusUnref {
    void operator()(sd_bus* bus) const { sdBus().sd_bus_flush_close_unref(bus); }
};
struct MessageUnref {
    void operator()(sd_bus_message* message) const { sdBus().sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, BusUnref>;
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

// An sd-bus error that frees itself.
class BusError {
  public:
    BusError() = default;
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    ~BusError() { sdBus().sd_bus_error_free(&error_); }

    sd_bus_error* get() { return &error_; }
    bool is(const char* name) const { return sdBus().sd_bus_error_has_name(&error_, name) != 0; }
    // systemd's own words when it sent any, else the system's for result.
    std::string reason(int result) const {
        return error_.message != nullptr ? error_.message : support::systemReason(-result);
    }

  private:
    sd_bus_error error_ = SD_BUS_ERROR_NULL;
};

support::Result<Bus> connectToSystemd() {
    if (support::Result<const SdBus*> loaded = libsystemd(); !loaded) {
        return loaded.failure();
    }
    sd_bus* bus = nullptr;
    if (sdBus().sd_bus_new(&bus) >= 0) {
        Bus owned(bus);
        if (sdBus().sd_bus_set_address(bus, kSystemdPrivateSocket) >= 0 &&
            sdBus().sd_bus_start(bus) >= 0) {
            return owned;
        }
    }
    bus = nullptr;
    const int opened = sdBus().sd_bus_open_system(&bus);
    if (opened < 0) {
        return support::couldNot("connect to", "systemd", -opened);
    }
    return Bus(bus);
}

// What systemd says of a loaded unit.
struct UnitState {
    std::string activeState;
    std::string pendingJobType;  // empty when no job is queued for the unit
    std::uint32_t mainPid = 0;
    std::uint64_t timeoutStopMicroseconds = 0;

    // A stop asked for is under way, or queued and about to be.
    bool stopping() const { return activeState == "deactivating" || pendingJobType == "stop"; }
    // A main process that has ended is one until systemd has reaped it.
    bool running() const {
        if (mainPid == 0) {
            return false;
        }
        auto stat = readProcessStat("/proc", static_cast<pid_t>(mainPid));
        return stat && stat->running();
    }
    bool up() const { return !stopping() && activeState != "inactive" && activeState != "failed"; }
};

// What the unit's queued job does, when one is queued: systemd answers a StopUnit before the
// unit's state shows it.
int readPendingJobType(sd_bus* bus, const char* object, BusError& error, UnitState& state) {
    sd_bus_message* reply = nullptr;
    int result = sdBus().sd_bus_get_property(bus, kSystemd, object, kUnitInterface, "Job",
                                             error.get(), &reply, "(uo)");
    Message owned(reply);
    std::uint32_t id = 0;
    const char* jobObject = nullptr;
    if (result >= 0) {
        result = sdBus().sd_bus_message_read(reply, "(uo)", &id, &jobObject);
    }
    if (result < 0 || id == 0) {
        return result;
    }
    char* type = nullptr;
    BusError jobError;
    result = sdBus().sd_bus_get_property_string(bus, kSystemd, jobObject, kJobInterface, "JobType",
                                                jobError.get(), &type);
    if (result < 0) {
        // The job has finished meanwhile.
        return jobError.is(kUnknownObject) ? 0 : result;
    }
    state.pendingJobType = type;
    ::free(type);
    return 0;
}

// Reads the properties of the unit at object; an object that has gone (the unit was forgotten
// meanwhile) shows as kUnknownObject in error.
int readUnitProperties(sd_bus* bus, const char* object, BusError& error, UnitState& state) {
    char* activeState = nullptr;
    int result = sdBus().sd_bus_get_property_string(bus, kSystemd, object, kUnitInterface,
                                                    "ActiveState", error.get(), &activeState);
    if (result < 0) {
        return result;
    }
    state.activeState = activeState;
    ::free(activeState);
    result = sdBus().sd_bus_get_property_trivial(bus, kSystemd, object, kServiceInterface,
                                                 "MainPID", error.get(), 'u', &state.mainPid);
    if (result >= 0) {
        result = sdBus().sd_bus_get_property_trivial(bus, kSystemd, object, kServiceInterface,
                                                     "TimeoutStopUSec", error.get(), 't',
                                                     &state.timeoutStopMicroseconds);
    }
    return result < 0 ? result : readPendingJobType(bus, object, error, state);
}

// The unit's state; nothing when systemd has no such unit loaded.
support::Result<std::optional<UnitState>> stateOfUnit(sd_bus* bus, const std::string& unit) {
    BusError error;
    sd_bus_message* reply = nullptr;
    int result = sdBus().sd_bus_call_method(bus, kSystemd, kSystemdPath, kManager, "GetUnit",
                                            error.get(), &reply, "s", unit.c_str());
    Message owned(reply);
    if (result < 0) {
        if (error.is(kNoSuchUnit)) {
            return std::optional<UnitState>();
        }
        return support::couldNot("ask systemd about", unit, error.reason(result), -result);
    }
    const char* object = nullptr;
    if ((result = sdBus().sd_bus_message_read(reply, "o", &object)) < 0) {
        return support::couldNot("read systemd's answer about", unit, -result);
    }
    UnitState state;
    BusError propertyError;
    result = readUnitProperties(bus, object, propertyError, state);
    if (result < 0) {
        // Forgotten between the questions: it has gone.
        if (propertyError.is(kUnknownObject)) {
            return std::optional<UnitState>();
        }
        return support::couldNot("ask systemd about", unit, propertyError.reason(result), -result);
    }
    return std::optional<UnitState>(std::move(state));
}

// Waits until systemd has forgotten the unit, which it does once the unit has ended (killing
// what is left of it once its stop timeout has passed). Fails when it is still there after that.
support::Status awaitUnitGone(sd_bus* bus, const std::string& unit, const UnitState& state) {
    const std::int64_t allowed = static_cast<std::int64_t>(std::min<std::uint64_t>(
                                     state.timeoutStopMicroseconds / 1000, INT32_MAX)) +
                                 kKillSettleMilliseconds;
    const support::Deadline deadline{std::chrono::milliseconds(allowed)};
    for (;;) {
        auto now = stateOfUnit(bus, unit);
        if (!now) {
            return now.failure();
        }
        if (!now->has_value()) {
            return {};
        }
        if (deadline.passed()) {
            return support::Failure{ETIMEDOUT, "its unit " + unit + " is still " +
                                                   (*now)->activeState + " after " +
                                                   std::to_string(allowed) + " ms"};
        }
        const timespec pause{0, kGonePollMilliseconds * 1000000};
        ::nanosleep(&pause, nullptr);
    }
}

// Appends one (sv) property whose value has a basic type.
template <typename Value>
int appendProperty(sd_bus_message* message, const char* name, const char* type, Value value) {
    return sdBus().sd_bus_message_append(message, "(sv)", name, type, value);
}

// A NULL-terminated array of pointers into strings, for sd-bus.
std::vector<char*> pointersTo(std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    for (auto& text : strings) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

int appendStrings(sd_bus_message* message, const char* name, std::vector<std::string> strings) {
    auto pointers = pointersTo(strings);
    int result = sdBus().sd_bus_message_open_container(message, 'r', "sv");
    if (result >= 0) {
        result = sdBus().sd_bus_message_append(message, "s", name);
    }
    if (result >= 0) {
        result = sdBus().sd_bus_message_open_container(message, 'v', "as");
    }
    if (result >= 0) {
        result = sdBus().sd_bus_message_append_strv(message, pointers.data());
    }
    if (result >= 0) {
        result = sdBus().sd_bus_message_close_container(message);
    }
    return result >= 0 ? sdBus().sd_bus_message_close_container(message) : result;
}

// ExecStart: the program, its argument vector exactly as the job gives it, and a failure that
// counts as one.
int appendExecStart(sd_bus_message* message, const std::string& program,
                    std::vector<std::string> arguments) {
    auto pointers = pointersTo(arguments);
    int result = sdBus().sd_bus_message_open_container(message, 'r', "sv");
    if (result >= 0) {
        result = sdBus().sd_bus_message_append(message, "s", "ExecStart");
    }
    if (result >= 0) {
        result = sdBus().sd_bus_message_open_container(message, 'v', "a(sasb)");
    }
    if (result >= 0) {
        result = sdBus().sd_bus_message_open_container(message, 'a', "(sasb)");
    }
    if (result >= 0) {
        result = sdBus().sd_bus_message_open_container(message, 'r', "sasb");
    }
    if (result >= 0) {
        result = sdBus().sd_bus_message_append(message, "s", program.c_str());
    }
    if (result >= 0) {
        result = sdBus().sd_bus_message_append_strv(message, pointers.data());
    }
    if (result >= 0) {
        result = sdBus().sd_bus_message_append(message, "b", 0);
    }
    for (int open = 4; result >= 0 && open > 0; --open) {
        result = sdBus().sd_bus_message_close_container(message);
    }
    return result;
}

// The job's output files, opened as its account; a file that the job does not name is not
// opened, and its output goes nowhere.
struct OutputFiles {
    support::UniqueFd output;
    support::UniqueFd error;
};

support::Result<OutputFiles> openOutputFiles(const LaunchdJob& job, const LaunchPlan& plan) {
    OutputFiles files;
    if (job.standardOutPath) {
        auto opened = openAsJobAccount(plan, OutputFile::StandardOutput);
        if (!opened) {
            return opened.failure();
        }
        files.output = std::move(*opened);
    }
    if (job.standardErrorPath) {
        auto opened = openAsJobAccount(plan, OutputFile::StandardError);
        if (!opened) {
            return opened.failure();
        }
        files.error = std::move(*opened);
    }
    return files;
}

// Where a standard file goes: the file already opened, or nowhere. systemd is handed the
// descriptor, never the path: it would open a path as root, following whatever link the job's
// account had laid there.
int appendOutput(sd_bus_message* message, const char* fdProperty, const char* property,
                 const support::UniqueFd& file) {
    return file.valid() ? appendProperty(message, fdProperty, "h", file.get())
                        : appendProperty(message, property, "s", "null");
}

// systemd runs only absolute paths; the direct backend runs a relative one from the job's
// working folder.
std::string absoluteProgram(const LaunchPlan& plan) {
    return plan.executable.front() == '/'
               ? plan.executable
               : support::joinedPath(plan.workingDirectory, plan.executable);
}

int appendJobProperties(sd_bus_message* message, const std::string& label, const LaunchdJob& job,
                        const LaunchPlan& plan, const OutputFiles& files) {
    const std::string description = "launchd job " + label;
    int result = appendProperty(message, "Description", "s", description.c_str());
    // Running once executed, as the direct backend's start answers.
    if (result >= 0) {
        result = appendProperty(message, "Type", "s", "exec");
    }
    if (result >= 0) {
        result = appendExecStart(message, absoluteProgram(plan), plan.arguments);
    }
    if (result >= 0 && job.userName) {
        result = appendProperty(message, "User", "s", job.userName->c_str());
    }
    if (result >= 0 && job.groupName) {
        result = appendProperty(message, "Group", "s", job.groupName->c_str());
    }
    if (result >= 0) {
        result = appendProperty(message, "WorkingDirectory", "s", plan.workingDirectory.c_str());
    }
    if (result >= 0) {
        result = appendStrings(message, "Environment", plan.environment);
    }
    if (result >= 0) {
        result =
            appendOutput(message, "StandardOutputFileDescriptor", "StandardOutput", files.output);
    }
    if (result >= 0) {
        result = appendOutput(message, "StandardErrorFileDescriptor", "StandardError", files.error);
    }
    if (result >= 0) {
        result = appendProperty(message, "UMask", "u", static_cast<std::uint32_t>(plan.umask));
    }
    if (result >= 0) {
        result = appendProperty(
            message, "TimeoutStopUSec", "t",
            static_cast<std::uint64_t>(job.exitTimeOutSeconds) * kMicrosecondsPerSecond);
    }
    // launchd's stop: SIGTERM to the job's process, SIGKILL to all that is left at the end.
    if (result >= 0) {
        result = appendProperty(message, "KillMode", "s", "mixed");
    }
    if (result >= 0) {
        result = appendProperty(message, "KillSignal", "i", static_cast<std::int32_t>(SIGTERM));
    }
    if (result >= 0) {
        result = appendProperty(message, "SendSIGKILL", "b", 1);
    }
    // A unit that failed would otherwise stay loaded, and its name could not be used again.
    if (result >= 0) {
        result = appendProperty(message, "CollectMode", "s", "inactive-or-failed");
    }
    return result;
}

// Asks systemd for the job's transient unit; does not wait for it to run.
support::Status startTransientUnit(sd_bus* bus, const std::string& unit, const std::string& label,
                                   const LaunchdJob& job, const LaunchPlan& plan,
                                   const OutputFiles& files) {
    sd_bus_message* request = nullptr;
    int result = sdBus().sd_bus_message_new_method_call(bus, &request, kSystemd, kSystemdPath,
                                                        kManager, "StartTransientUnit");
    Message owned(request);
    if (result >= 0) {
        result = sdBus().sd_bus_message_append(request, "ss", unit.c_str(), "replace");
    }
    if (result >= 0) {
        result = sdBus().sd_bus_message_open_container(request, 'a', "(sv)");
    }
    if (result >= 0) {
        result = appendJobProperties(request, label, job, plan, files);
    }
    if (result >= 0) {
        result = sdBus().sd_bus_message_close_container(request);
    }
    if (result >= 0) {
        result = sdBus().sd_bus_message_append(request, "a(sa(sv))", 0);
    }
    if (result < 0) {
        return support::couldNot("describe to systemd", unit, -result);
    }
    BusError error;
    sd_bus_message* reply = nullptr;
    result = sdBus().sd_bus_call(bus, request, 0, error.get(), &reply);
    Message ownedReply(reply);
    if (result < 0) {
        return support::Failure{error.is(kUnitExists) ? EEXIST : -result,
                                "systemd refused the unit " + unit + ": " + error.reason(result)};
    }
    return {};
}

}  // namespace

bool systemdRunsThisMachine() {
    // What sd_booted asks, asked here: the library need not be loaded to learn that it is unused.
    // The machine's init does not change under a running process, so it is asked once.
    static const bool booted = support::isFolder("/run/systemd/system");
    return booted;
}

std::optional<std::string> unitNameOfLabel(const std::string& label) {
    if (!isUsableLabel(label)) {
        return std::nullopt;
    }
    static constexpr char kHex[] = "0123456789abcdef";
    std::string unit(kUnitPrefix);
    for (std::size_t index = 0; index < label.size(); ++index) {
        const char byte = label[index];
        if (isUnescapedByte(byte, index == 0)) {
            unit += byte;
        } else {
            const auto value = static_cast<unsigned char>(byte);
            unit += "\\x";
            unit += kHex[value >> 4];
            unit += kHex[value & 0xf];
        }
    }
    unit += kUnitSuffix;
    if (unit.size() > kLongestUnitName) {
        return std::nullopt;
    }
    return unit;
}

SystemdJobs::SystemdJobs(std::vector<std::string> jobFolders, FailureLog log)
    : jobFolders_(std::move(jobFolders)), log_(std::move(log)) {}

SystemdJobs SystemdJobs::onThisMachine() {
    return SystemdJobs(jobFoldersOfThisMachine(), &logHostFailure);
}

bool SystemdJobs::start(const std::string& label) {
    const auto unit = unitNameOfLabel(label);
    if (!unit) {
        return refuse("start", label, "the label is not a file name of a unit's length");
    }
    auto bus = connectToSystemd();
    if (!bus) {
        return refuse("start", label, bus.message());
    }
    auto state = stateOfUnit(bus->get(), *unit);
    if (!state) {
        return refuse("start", label, state.message());
    }
    if (state->has_value()) {
        if ((*state)->up()) {
            return true;
        }
        if (auto gone = awaitUnitGone(bus->get(), *unit, **state); !gone) {
            return refuse("start", label, gone.message());
        }
    }
    auto job = readJobOfLabel(jobFolders_, label);
    if (!job) {
        return refuse("start", label, job.message());
    }
    auto plan = planLaunch(*job);
    if (!plan) {
        return refuse("start", label, plan.message());
    }
    auto files = openOutputFiles(*job, *plan);
    if (!files) {
        return refuse("start", label, files.message());
    }
    auto started = startTransientUnit(bus->get(), *unit, label, *job, *plan, *files);
    if (!started && started.error() == EEXIST) {
        // Another host started it in between: it runs, as asked.
        return true;
    }
    return started.ok() || refuse("start", label, started.message());
}

bool SystemdJobs::stop(const std::string& label) {
    const auto unit = unitNameOfLabel(label);
    if (!unit) {
        return refuse("stop", label, "the label is not a file name of a unit's length");
    }
    auto bus = connectToSystemd();
    if (!bus) {
        return refuse("stop", label, bus.message());
    }
    auto state = stateOfUnit(bus->get(), *unit);
    if (!state) {
        return refuse("stop", label, state.message());
    }
    if (!state->has_value()) {
        if (!hasJobFile(jobFolders_, label)) {
            return refuse("stop", label, "there is no job file " + label + ".plist");
        }
        return true;
    }
    // A stop already under way keeps its job, and so its deadline.
    BusError error;
    sd_bus_message* reply = nullptr;
    const int result =
        sdBus().sd_bus_call_method(bus->get(), kSystemd, kSystemdPath, kManager, "StopUnit",
                                   error.get(), &reply, "ss", unit->c_str(), "replace");
    Message owned(reply);
    if (result < 0 && !error.is(kNoSuchUnit)) {
        return refuse("stop", label,
                      "systemd refused to stop " + *unit + ": " + error.reason(result));
    }
    return true;
}

bool SystemdJobs::isRunning(const std::string& label) const {
    const auto unit = unitNameOfLabel(label);
    if (!unit) {
        return false;
    }
    auto bus = connectToSystemd();
    if (!bus) {
        log_(support::couldNot("ask about job", label, bus.message()).message);
        return false;
    }
    auto state = stateOfUnit(bus->get(), *unit);
    if (!state) {
        log_(support::couldNot("ask about job", label, state.message()).message);
        return false;
    }
    return state->has_value() && (*state)->running();
}

bool SystemdJobs::refuse(const char* action, const std::string& label,
                         const std::string& why) const {
    log_(support::couldNot(std::string(action) + " job", label, why).message);
    return false;
}

}  // namespace velnor
