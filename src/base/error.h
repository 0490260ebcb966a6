// The one form in which the libraries and the companion programs report a failure.
#pragma once

#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace tarnwick {

struct Error {
    std::string text;       // for people, without a full stop; programs escape it when they print it
    int code = 0;           // a positive errno value; 0 when no call of the system failed
    std::string subject{};  // what the error is about, mostly a path; hostile bytes; empty if there is none
};

// A failed call of the system: its errno value and the text for it.
inline Error systemError(int code, std::string subject = {}) { return {std::strerror(code), code, std::move(subject)}; }

// A value or the reason why there is none. `Failure` is Error, or a type that adds to it. Reading the value of a
// failure, or the error of a success, throws std::bad_variant_access or std::bad_optional_access.
template <typename Value, typename Failure = Error>
class [[nodiscard]] Result {
public:
    // Implicit, so that a function can return a value or an error as it is.
    Result(Value value) : state_(std::in_place_index<0>, std::move(value)) {}  // NOLINT(google-explicit-constructor)
    // NOLINTNEXTLINE(google-explicit-constructor)
    Result(Failure failure) : state_(std::in_place_index<1>, std::move(failure)) {}

    explicit operator bool() const { return state_.index() == 0; }
    Value& operator*() { return std::get<0>(state_); }
    const Value& operator*() const { return std::get<0>(state_); }
    Value* operator->() { return &std::get<0>(state_); }
    const Value* operator->() const { return &std::get<0>(state_); }
    [[nodiscard]] const Failure& error() const { return std::get<1>(state_); }

private:
    std::variant<Value, Failure> state_;
};

// Success, or the reason of the failure.
template <typename Failure>
class [[nodiscard]] Result<void, Failure> {
public:
    Result() = default;
    Result(Failure failure) : failure_(std::move(failure)) {}  // NOLINT(google-explicit-constructor)

    explicit operator bool() const { return !failure_; }
    [[nodiscard]] const Failure& error() const { return failure_.value(); }

private:
    std::optional<Failure> failure_;
};
using Status = Result<void>;

}  // namespace tarnwick
