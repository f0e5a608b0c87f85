#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Text is UTF-8, whatever the locale. A character is an extended grapheme cluster. Every function is pure and
// may be called from any thread.

namespace kestrune {

/// Whether `bytes` are well-formed UTF-8.
bool isValidUtf8(std::string_view bytes);

/// `text` without white space and newlines at both ends. White space is the tab and Unicode's space
/// separators (Zs). Newlines are U+000A to U+000D, U+0085, U+2028 and U+2029. Ill-formed bytes are neither.
std::string_view trimmed(std::string_view text);

enum class CrLf { oneNewline, twoNewlines };

/// Splits a text at its newlines. Empty lines count; an empty text has no line.
class LineSplitter {
 public:
  explicit LineSplitter(std::string_view text, CrLf givenCrLf = CrLf::oneNewline)
      : rest(text), crLf(givenCrLf), atEnd(text.empty()) {}

  /// Puts the next line into `line`; false when there is none left.
  bool next(std::string_view& line);

 private:
  std::string_view rest;
  const CrLf crLf;
  bool atEnd;
};

/// `text` unchanged if it has at most `limit` characters, otherwise its first `limit - 3` characters and
/// "...".
std::string shortened(std::string_view text, std::size_t limit);

/// `text` with every `from` replaced by `to`. `from` is not empty.
std::string replacingAll(std::string_view text, std::string_view from, std::string_view to);

/// The longest prefix of `text` that has at most `limit` bytes and splits no code point.
std::string_view withinBytes(std::string_view text, std::size_t limit);

/// `text` without terminal escape sequences.
std::string withoutEscapeSequences(std::string_view text);

/// `text` made safe to display. Removes terminal escape sequences. Replaces other control characters, line
/// ends, bidirectional controls, noncharacters and ill-formed bytes with spaces.
std::string withoutControls(std::string_view text);

/// `text` for one menu row or a tooltip: without controls, and shortened to 200 characters, which is more
/// than any screen shows.
std::string displayRow(std::string_view text);

}  // namespace kestrune
