#pragma once

#include <utf8proc.h>

#include <string>
#include <string_view>
#include <vector>

namespace kestrune::testing {

/// Returns whether the program must never show this character. Takes the character's category from utf8proc
/// and not from the program's own list, because the tests must find gaps in that list.
inline bool commandsAScreen(utf8proc_int32_t character) {
  const auto category = utf8proc_category(character);
  const bool isControl = category == UTF8PROC_CATEGORY_CC || category == UTF8PROC_CATEGORY_CS ||
                         category == UTF8PROC_CATEGORY_ZL || category == UTF8PROC_CATEGORY_ZP;
  const bool isBidiControl =
      (character >= 0x202A && character <= 0x202E) || (character >= 0x2066 && character <= 0x2069);
  const bool isNoncharacter = (character >= 0xFDD0 && character <= 0xFDEF) || (character & 0xFFFE) == 0xFFFE;
  return isControl || isBidiControl || isNoncharacter;
}

/// Checks a text that the program shows to the user. The faults are ill-formed UTF-8 and characters for which
/// commandsAScreen() is true. With `lines`, line feeds are allowed. Returns a description of the first fault,
/// or "" if there is none.
inline std::string faultOf(std::string_view shown, bool lines = false) {
  for (std::size_t at = 0; at < shown.size();) {
    utf8proc_int32_t character = 0;
    const auto length = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(shown.data() + at),
                                         static_cast<utf8proc_ssize_t>(shown.size() - at), &character);
    if (length <= 0) return "ill-formed at " + std::to_string(at);
    if (commandsAScreen(character) && !(lines && character == '\n')) {
      return "character " + std::to_string(character) + " at " + std::to_string(at);
    }
    at += static_cast<std::size_t>(length);
  }
  return "";
}

struct HostileText {
  std::string name;
  std::string text;
};

/// Returns texts that would break a terminal or a window, or deceive the user, if the program showed them
/// unchanged. Each text begins with "before" and ends with "behind". Some texts are hostile because they are
/// very long: each of these has more than `length` bytes.
inline std::vector<HostileText> hostileTexts(std::size_t length = 1 << 20) {
  using namespace std::string_literals;
  const auto many = [length](std::string_view piece) {
    std::string text;
    while (text.size() < length) text += piece;
    return text;
  };
  std::string controls;
  for (int code = 0; code < 0xA0; ++code) {
    if (code >= 0x20 && code < 0x7F) continue;
    if (code >= 0x80) controls += '\xC2';
    controls += static_cast<char>(code);
  }
  std::vector<HostileText> texts{
      {"every control character", controls},
      {"a NUL", "\0"s},
      {"the clearing of a screen", "\x1b[2J\x1b[H\u009b2J"},
      {"the title of a terminal", "\x1b]0;owned\x07\x1b]2;owned\x1b\\"},
      {"a link and the clipboard", "\x1b]8;;http://example.com\x1b\\x\x1b]8;;\x1b\\\x1b]52;c;eA==\x07"},
      {"a device control string", "\x1bP+q544e\x1b\\\u0090x\u009c"},
      {"overwriting", "\r\b\b\b\b\b\b\b\x7f\x1b[A\x1b[2K"},
      {"line ends", "\n\r\n\v\f\u0085\u2028\u2029"},
      {"directions", "\u202a\u202b\u202c\u202d\u202e\u2066\u2067\u2068\u2069"},
      {"characters without a width", "\u200b\u200c\u200d\u2060\ufeff\u00ad\u200e\u200f\u061c\u180e"},
      {"no characters", "\ufdd0\ufffe\uffff\U0010ffff"},
      {"ill-formed bytes", "\xff\xfe\xc0\x80\xed\xa0\x80\xf4\x90\x80\x80\xe4\xb8"},
      {"markup", "<b>&amp;<img src=\"file:///etc/passwd\">%s%n$(id)`id`"},
      {"a long line", many("x")},
      {"many without a width", many("\u200b")},
      {"a long character", many("\u0301")},
      {"many lines", many("\n")},
      {"many escapes", many("\x1b[31m")},
      {"many bytes", many("\xff")},
  };
  for (auto& each : texts) each.text = "before" + each.text + "behind";
  return texts;
}

}  // namespace kestrune::testing
