#pragma once

#include <concepts>
#include <string>
#include <utility>
#include <variant>

namespace kestrune {

/// Why an operation failed: the system's error message, or text for the user.
struct Failure {
  std::string reason;

  bool operator==(const Failure&) const = default;
};

using Done = std::monostate;

/// A value, or the reason of a failure. A port's operation returns a `Result` if its caller uses the reason.
template <typename Value = Done>
class Result {
 public:
  template <std::convertible_to<Value> Given>
  Result(Given&& value) : outcome(Value(std::forward<Given>(value))) {}
  Result(Failure failure) : outcome(std::move(failure)) {}

  explicit operator bool() const { return std::holds_alternative<Value>(outcome); }
  /// The next two operators may be called only when there is a value.
  Value& operator*() { return std::get<Value>(outcome); }
  const Value& operator*() const { return std::get<Value>(outcome); }
  /// Returns why the operation failed. May be called only when there is no value.
  const std::string& reason() const { return std::get<Failure>(outcome).reason; }

  bool operator==(const Result&) const = default;

 private:
  std::variant<Value, Failure> outcome;
};

}  // namespace kestrune
