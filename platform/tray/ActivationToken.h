#pragma once

#include <string>
#include <utility>

namespace kestrune {

/// The token (xdg-activation) that the tray was given with the last click, for the window that this click
/// opens. Main thread.
class ActivationToken {
 public:
  void give(std::string given) { token = std::move(given); }

  /// Empty when there is none. A token serves once.
  std::string take() { return std::exchange(token, {}); }

 private:
  std::string token;
};

}  // namespace kestrune
