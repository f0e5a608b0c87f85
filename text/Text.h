#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// Functions on UTF-8 text. They ignore the locale. A character is an extended grapheme cluster. Every
// function is pure and may be called from any thread.

namespace kestrune {

bool isValidUtf8(std::string_view bytes);

/// Returns `text` without the white space and newlines at its two ends. White space means the tab and
/// Unicode's space separators (Zs). Newlines are U+000A to U+000D, U+0085, U+2028 and U+2029. An ill-formed
/// byte is neither white space nor a newline.
std::string_view trimmed(std::string_view text);

enum class CrLf { oneNewline, twoNewlines };

/// Splits a text at its newlines. Empty lines count as lines, also the one after a newline at the end of the
/// text. An empty text has no line.
class LineSplitter {
 public:
  explicit LineSplitter(std::string_view text, CrLf givenCrLf = CrLf::oneNewline)
      : rest(text), crLf(givenCrLf), atEnd(text.empty()) {}

  /// Puts the next line into `line`; returns false when no line is left.
  bool next(std::string_view& line);

 private:
  std::string_view rest;
  const CrLf crLf;
  bool atEnd;
};

/// Returns `text` unchanged if it has at most `limit` characters, otherwise its first `limit - 3` characters
/// followed by "...".
std::string shortened(std::string_view text, std::size_t limit);

/// Returns `text` with every `from` replaced by `to`. `from` must not be empty.
std::string replacingAll(std::string_view text, std::string_view from, std::string_view to);

/// Splits `text` at each `separator`. A separator at the end adds no empty part: "a,b," has two parts.
std::vector<std::string> split(std::string_view text, char separator);

/// Returns the longest prefix of `text` that has at most `limit` bytes and does not end inside a code point.
std::string_view withinBytes(std::string_view text, std::size_t limit);

/// Call this before the text is cut to the shown length: a cut inside a sequence would leave a part of it.
std::string withoutEscapeSequences(std::string_view text);

/// Returns `text` made safe to display. Removes the terminal escape sequences. Then replaces each control
/// character, line end, bidirectional control, noncharacter and ill-formed byte by a space. If `keepTabs` is
/// true, tabs stay.
std::string withoutControls(std::string_view text, bool keepTabs = false);

/// Returns `text` ready for a menu row or a tooltip: the result of `withoutControls`, shortened to 200
/// characters, which is more than any screen shows.
std::string displayRow(std::string_view text);

}  // namespace kestrune
