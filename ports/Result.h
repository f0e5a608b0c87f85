#pragma once

#include <concepts>
#include <string>
#include <utility>
#include <variant>

namespace kestrune {

/// Why an operation failed: the system's description, or words for a person.
struct Failure {
  std::string reason;

  bool operator==(const Failure&) const = default;
};

struct Done {
  bool operator==(const Done&) const = default;
};

/// What every port returns that can fail: a value, or why there is none. What is merely absent is a
/// `std::optional` instead.
template <typename Value = Done>
class Result {
 public:
  template <std::convertible_to<Value> Given>
  Result(Given&& value) : outcome(Value(std::forward<Given>(value))) {}
  Result(Failure failure) : outcome(std::move(failure)) {}

  explicit operator bool() const { return std::holds_alternative<Value>(outcome); }
  /// Only when there is a value.
  Value& operator*() { return std::get<Value>(outcome); }
  const Value& operator*() const { return std::get<Value>(outcome); }
  Value* operator->() { return &**this; }
  /// Only when there is none.
  const std::string& reason() const { return std::get<Failure>(outcome).reason; }

  bool operator==(const Result&) const = default;

 private:
  std::variant<Value, Failure> outcome;
};

}  // namespace kestrune
