#pragma once

#include <charconv>
#include <cstddef>
#include <optional>
#include <string>

namespace kestrune {

// What terminals take for a style of text, and the end of it.
inline constexpr auto boldStyle = "\033[1m";
inline constexpr auto dimStyle = "\033[2m";
inline constexpr auto plainStyle = "\033[0m";

/// What a terminal can be asked for.
struct TerminalAbilities {
  bool styles = false;  ///< bold and faint text, as far as its user wants any
  bool colors = false;  ///< for what is nothing without them
  int columns = 0;      ///< 0: nobody knows
  int rows = 0;         ///< 0: nobody knows
};

inline constexpr auto terminalRule = "────────────────────────────";

/// A whole number; absent when `text` is anything else.
inline std::optional<std::size_t> numberIn(const std::string& text) {
  std::size_t number = 0;
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, number);
  return parsed.ec == std::errc() && parsed.ptr == end ? std::optional(number) : std::nullopt;
}

}  // namespace kestrune
