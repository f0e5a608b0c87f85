#pragma once

#include <string>
#include <string_view>
#include <utility>

namespace kestrune {

/// Keeps the activation token (XDG_ACTIVATION_TOKEN) of the last click in the tray, which lets the window
/// opened by this click take the focus. Main thread.
class ActivationToken {
 public:
  /// Stores a token. Any program on the bus may send one; a text of over 4096 bytes counts as no token.
  void give(std::string_view given) { token = given.size() <= longest ? given : ""; }

  /// Returns the token and forgets it, because it is valid for one window. Empty when there is no token.
  std::string take() { return std::exchange(token, {}); }

 private:
  static constexpr std::size_t longest = 4096;  // bytes

  std::string token;
};

}  // namespace kestrune
