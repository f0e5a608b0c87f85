#pragma once

#include <string>
#include <string_view>
#include <utility>

namespace kestrune {

/// The activation token (XDG_ACTIVATION_TOKEN) that the tray was given with the last click, for the window
/// that this click opens. Main thread.
class ActivationToken {
 public:
  /// Anybody on the bus may give one: a text that is too long for a token counts as none.
  void give(std::string_view given) { token = given.size() <= longest ? given : ""; }

  /// Empty when there is none. A token serves once.
  std::string take() { return std::exchange(token, {}); }

 private:
  static constexpr std::size_t longest = 4096;  // bytes

  std::string token;
};

}  // namespace kestrune
