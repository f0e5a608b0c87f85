#pragma once

#include <functional>
#include <optional>
#include <string>

namespace kestrune {

/// Requests from other programs of this user. Main thread.
class Requests {
 public:
  virtual ~Requests() = default;

  /// Sets the function that is called for each request to choose a menu row, with the row's action. It
  /// returns one line with the reason of a failure; absent on success. Requests before this call are refused.
  virtual void onPerform(std::function<std::optional<std::string>(const std::string& action)> perform) = 0;
};

}  // namespace kestrune
