// The one way our own functions return a value or the reason they could not.
//
// A failure carries the system's error number, when one applies, and one line for the log in
// the project's one template: what could not be done, the object quoted, the reason
// (`could not create folder "/var/pgsql_socket": Permission denied`). "could not" is for
// failures; "cannot" only for what is not permitted.
//
// The host-library calls whose shapes are fixed (GetLaunchDaemonServiceState and its kin,
// ec_get_process_table, sysctl) keep those shapes at their boundary and use this inside.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace velnor::support {

struct Failure {
    int error = 0;  // the errno behind the failure, or 0 when none applies
    std::string message;
};

// The system's text for an error number.
std::string systemReason(int error);

// `could not VERB "OBJECT": REASON`, with the system's text for error as the reason.
Failure couldNot(std::string_view verb, std::string_view object, int error);
// The same with a reason of our own; error may still say which errno it stands for.
Failure couldNot(std::string_view verb, std::string_view object, std::string_view reason,
                 int error = 0);

template <typename T>
class [[nodiscard]] Result {
  public:
    Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
    Result(Failure failure) : state_(std::in_place_index<1>, std::move(failure)) {}
    // The value made in place from arguments, with no temporary to move from.
    template <typename... Arguments>
    explicit Result(std::in_place_t, Arguments&&... arguments)
        : state_(std::in_place_index<0>, std::forward<Arguments>(arguments)...) {}

    bool ok() const { return state_.index() == 0; }
    explicit operator bool() const { return ok(); }

    // Only when ok().
    T& value() & { return std::get<0>(state_); }
    const T& value() const& { return std::get<0>(state_); }
    T&& value() && { return std::get<0>(std::move(state_)); }
    T& operator*() & { return value(); }
    const T& operator*() const& { return value(); }
    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }

    // Only when !ok().
    const Failure& failure() const { return std::get<1>(state_); }
    const std::string& message() const { return failure().message; }
    int error() const { return failure().error; }

  private:
    std::variant<T, Failure> state_;
};

// Success with no value, or a failure.
template <>
class [[nodiscard]] Result<void> {
  public:
    Result() = default;
    Result(Failure failure) : failure_(std::move(failure)), ok_(false) {}

    bool ok() const { return ok_; }
    explicit operator bool() const { return ok_; }

    const Failure& failure() const { return failure_; }
    const std::string& message() const { return failure_.message; }
    int error() const { return failure_.error; }

  private:
    Failure failure_;
    bool ok_ = true;
};

using Status = Result<void>;

}  // namespace velnor::support
