#include "text/Text.h"

#include <utf8proc.h>

#include <algorithm>

namespace kestrune {

namespace {

/// One code point read from UTF-8, and its length in bytes, which is 0 at the end of the text. An ill-formed
/// byte is read as `invalidCharacter` with length 1.
struct Decoded {
  char32_t character;
  std::size_t length;
};

constexpr char32_t invalidCharacter = 0xFFFFFFFF;

Decoded decode(std::string_view text) {
  if (text.empty()) return {invalidCharacter, 0};
  const auto first = static_cast<unsigned char>(text.front());
  if (first < 0x80) return {first, 1};
  utf8proc_int32_t character = 0;
  const auto length = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                       static_cast<utf8proc_ssize_t>(text.size()), &character);
  if (length <= 0) return {invalidCharacter, 1};
  return {static_cast<char32_t>(character), static_cast<std::size_t>(length)};
}

constexpr bool isNewline(char32_t character) {
  return (character >= 0x0A && character <= 0x0D) || character == 0x85 || character == 0x2028 ||
         character == 0x2029;
}

/// Returns whether `character` is the tab, a space separator (Zs) or a newline.
bool isWhiteSpace(char32_t character) {
  if (isNewline(character) || character == ' ' || character == '\t') return true;
  if (character < 0x80 || character == invalidCharacter) return false;
  return utf8proc_category(static_cast<utf8proc_int32_t>(character)) == UTF8PROC_CATEGORY_ZS;
}

constexpr bool isControl(char32_t character) {
  return character < 0x20 || (character >= 0x7F && character <= 0x9F);
}

bool isReadable(char32_t character) {
  if (character == invalidCharacter || isControl(character) || isNewline(character)) return false;
  // Reject bidirectional embeddings, overrides and isolates, because they reorder the text after them.
  if ((character >= 0x202A && character <= 0x202E) || (character >= 0x2066 && character <= 0x2069))
    return false;
  // Reject noncharacters: D-Bus libraries refuse a whole message that contains a noncharacter.
  return (character < 0xFDD0 || character > 0xFDEF) && (character & 0xFFFE) != 0xFFFE;
}

/// Returns the length in bytes of the ECMA-48 escape sequence at the start of `text`. A sequence begins with
/// ESC or with a C1 control character. Returns 0 if there is no sequence, or if it is unterminated.
std::size_t escapeSequenceLength(std::string_view text) {
  constexpr std::string_view parameters = "0123456789:;<=>?";
  constexpr std::string_view intermediates = " !\"#$%&'()*+,-./";
  constexpr std::string_view controlStrings = "]PX^_";  // OSC, DCS, SOS, PM and APC
  if (text.size() < 2 || (text[0] != '\x1B' && text[0] != '\xC2')) return 0;
  const bool isC1 = text[0] == '\xC2';
  const char kind = isC1 ? static_cast<char>(text[1] - 0x40) : text[1];
  if (kind == '[') {  // a control sequence (CSI)
    const std::size_t end = text.find_first_not_of(intermediates, text.find_first_not_of(parameters, 2));
    return end < text.size() && text[end] >= '@' && text[end] <= '~' ? end + 1 : 0;
  }
  if (controlStrings.find(kind) != std::string_view::npos) {
    for (std::size_t end = 2; end < text.size();) {
      const Decoded decoded = decode(text.substr(end));
      if (decoded.character == '\a' || decoded.character == 0x9C) return end + decoded.length;
      if (text.substr(end).starts_with("\x1B\\")) return end + 2;
      if (isControl(decoded.character)) return 0;
      end += decoded.length;
    }
    return 0;
  }
  if (isC1) return 0;
  const std::size_t end = text.find_first_not_of(intermediates, 1);
  return end < text.size() && text[end] >= '0' && text[end] <= '~' ? end + 1 : 0;
}

/// Returns the length in bytes of the first `count` characters (grapheme clusters) of `text`, or of the whole
/// `text` if it has fewer characters.
std::size_t prefixLength(std::string_view text, std::size_t count) {
  utf8proc_int32_t state = 0;
  utf8proc_int32_t previous = 0;
  std::size_t position = 0;
  for (std::size_t characters = 0; position < text.size();) {
    const Decoded decoded = decode(text.substr(position));
    const auto current =
        static_cast<utf8proc_int32_t>(decoded.character == invalidCharacter ? 0xFFFD : decoded.character);
    const bool begins = position == 0 || utf8proc_grapheme_break_stateful(previous, current, &state);
    if (begins && ++characters > count) break;
    previous = current;
    position += decoded.length;
  }
  return position;
}

}  // namespace

bool isValidUtf8(std::string_view bytes) {
  for (Decoded next = decode(bytes); next.character != invalidCharacter; next = decode(bytes))
    bytes.remove_prefix(next.length);
  return bytes.empty();
}

std::string_view trimmed(std::string_view text) {
  for (Decoded first = decode(text); isWhiteSpace(first.character); first = decode(text))
    text.remove_prefix(first.length);
  while (!text.empty()) {
    const std::string_view before = withinBytes(text, text.size() - 1);
    const Decoded last = decode(text.substr(before.size()));
    if (before.size() + last.length != text.size() || !isWhiteSpace(last.character)) break;
    text = before;
  }
  return text;
}

bool LineSplitter::next(std::string_view& line) {
  // The first bytes of all newline characters in UTF-8. Other characters may have the same first byte.
  constexpr std::string_view newlineStarts = "\n\v\f\r\xC2\xE2";
  if (atEnd) return false;
  auto at = rest.find_first_of(newlineStarts);
  while (at != std::string_view::npos && !isNewline(decode(rest.substr(at)).character))
    at = rest.find_first_of(newlineStarts, at + 1);
  line = rest.substr(0, at);
  atEnd = at == std::string_view::npos;
  if (atEnd) return true;
  const bool isPair = crLf == CrLf::oneNewline && rest.substr(at).starts_with("\r\n");
  rest.remove_prefix(at + (isPair ? 2 : decode(rest.substr(at)).length));
  return true;
}

std::string shortened(std::string_view text, std::size_t limit) {
  // A text with at most `limit` bytes has at most `limit` characters. Call prefixLength() only for a longer
  // text, because its first call loads the tables of utf8proc, which take 300 kB of memory.
  if (text.size() <= limit || prefixLength(text, limit) == text.size()) return std::string(text);
  return std::string(text.substr(0, prefixLength(text, limit - 3))) + "...";
}

std::string replacingAll(std::string_view text, std::string_view from, std::string_view to) {
  std::string result;
  result.reserve(text.size());
  for (;;) {
    const auto at = text.find(from);
    result += text.substr(0, at);
    if (at == std::string_view::npos) return result;
    result += to;
    text.remove_prefix(at + from.size());
  }
}

std::vector<std::string> split(std::string_view text, char separator) {
  std::vector<std::string> parts;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(separator), text.size());
    parts.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return parts;
}

std::string_view withinBytes(std::string_view text, std::size_t limit) {
  std::size_t end = std::min(text.size(), limit);
  const auto isContinuation = [](char byte) { return (byte & 0xC0) == 0x80; };
  while (end < text.size() && end > 0 && isContinuation(text[end])) --end;
  return text.substr(0, end);
}

std::string withoutEscapeSequences(std::string_view text) {
  std::string plain;
  plain.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = escapeSequenceLength(text);
    if (length == 0) plain += text.front();
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return plain;
}

std::string withoutControls(std::string_view text, bool keepTabs) {
  const std::string withoutSequences = withoutEscapeSequences(text);
  std::string plain;
  plain.reserve(withoutSequences.size());
  for (std::string_view rest = withoutSequences; !rest.empty();) {
    const Decoded decoded = decode(rest);
    const bool stays = isReadable(decoded.character) || (keepTabs && decoded.character == '\t');
    plain += stays ? rest.substr(0, decoded.length) : " ";
    rest.remove_prefix(decoded.length);
  }
  return plain;
}

std::string displayRow(std::string_view text) {
  constexpr std::size_t limit = 200;  // characters (grapheme clusters)
  // Cut `text` before withoutControls(), to save time: `text` may have many megabytes.
  return shortened(withoutControls(withinBytes(text, 64 * limit)), limit);
}

}  // namespace kestrune
