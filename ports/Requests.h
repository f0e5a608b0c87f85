#pragma once

#include <functional>
#include <optional>
#include <string>

namespace kestrune {

/// What other programs of this user ask the client to do. Main thread.
class Requests {
 public:
  virtual ~Requests() = default;

  /// From now on, `perform` is called for each request to choose a row of the menu, with the row's action. It
  /// returns why the row could not be chosen, in one line; absent when it was. Until then such requests are
  /// refused.
  virtual void onPerform(std::function<std::optional<std::string>(const std::string& action)> perform) = 0;
};

}  // namespace kestrune
