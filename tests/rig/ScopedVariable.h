#pragma once

#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

namespace kestrune::testing {

/// Sets an environment variable, or unsets it if `value` is absent. The destructor restores the old value.
class ScopedVariable {
 public:
  ScopedVariable(std::string givenName, const std::optional<std::string>& value)
      : name(std::move(givenName)) {
    if (const char* const set = std::getenv(name.c_str())) before = set;
    put(value);
  }
  ~ScopedVariable() { put(before); }
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;

 private:
  void put(const std::optional<std::string>& value) const {
    if (value) {
      setenv(name.c_str(), value->c_str(), 1);
    } else {
      unsetenv(name.c_str());
    }
  }

  const std::string name;
  std::optional<std::string> before;
};

}  // namespace kestrune::testing
