#include "KestruneMenuClient/settings/EnvFile.h"

#include <algorithm>
#include <set>
#include <utility>

#include "text/Text.h"

namespace kestrune {

namespace {

constexpr std::string_view longNewlines[] = {"\u0085", "\u2028", "\u2029"};

bool isShortNewline(char character) {
  return character >= '\n' && character <= '\r';
}

/// The length in bytes of the newline character at the start of `text`; 0 when there is none.
std::size_t newlineLength(std::string_view text) {
  if (isShortNewline(text.front())) return 1;
  if (static_cast<unsigned char>(text.front()) < 0x80) return 0;
  for (const auto newline : longNewlines) {
    if (text.starts_with(newline)) return newline.size();
  }
  return 0;
}

bool endsWithNewline(std::string_view text) {
  return (!text.empty() && isShortNewline(text.back())) ||
         std::any_of(std::begin(longNewlines), std::end(longNewlines),
                     [text](std::string_view newline) { return text.ends_with(newline); });
}

/// The position of the first newline character at or after `at`; the end of the text when there is none.
std::size_t findNewline(std::string_view text, std::size_t at) {
  while (at < text.size() && newlineLength(text.substr(at)) == 0) ++at;
  return at;
}

/// Appends `text`, with every newline character replaced by a line feed.
void appendLines(std::string& result, std::string_view text) {
  while (!text.empty()) {
    const std::size_t end = findNewline(text, 0);
    result += text.substr(0, end);
    text.remove_prefix(end);
    if (text.empty()) return;
    result += '\n';
    text.remove_prefix(newlineLength(text));
  }
}

}  // namespace

EnvFile::EnvFile(std::string givenContents) : exists(true), contents(std::move(givenContents)) {}

std::optional<EnvFile> EnvFile::in(FileContents read) {
  if (read.outcome != ReadOutcome::read || !isValidUtf8(read.bytes)) return std::nullopt;
  return EnvFile(std::move(read.bytes));
}

std::optional<std::string> EnvFile::value(std::string_view key, std::string_view legacyKey) const {
  auto found = value(key);
  return found ? std::move(found) : value(legacyKey);
}

std::optional<std::string> EnvFile::value(std::string_view key) const {
  const std::string prefix = std::string(key) + "=";
  const std::string_view text = contents;
  const auto endsLine = [text](std::size_t at) {
    return text[at] == '\n' && (at == 0 || text[at - 1] != '\r');
  };
  for (auto at = text.find(prefix); at != std::string_view::npos; at = text.find(prefix, at + 1)) {
    if (at > 0 && !endsLine(at - 1)) continue;
    std::size_t end = at;
    while (end < text.size() && !endsLine(end)) ++end;
    const std::string_view line = text.substr(at, end - at);
    if (line.starts_with(prefix)) return std::string(trimmed(line.substr(prefix.size())));
  }
  return std::nullopt;
}

/// Calls `action` for every line that defines one of the keys, with the line's begin and end, the entry of
/// `values`, and the value in the line.
template <typename Action>
void EnvFile::forEachDefinition(const EnvValues& values, Action&& action) const {
  const std::string_view text = contents;
  for (auto equals = text.find('='); equals != std::string_view::npos; equals = text.find('=', equals)) {
    const std::string_view before = text.substr(0, equals);
    const auto entry = std::find_if(values.begin(), values.end(), [before](const auto& each) {
      if (!before.ends_with(each.first)) return false;
      const std::string_view rest = before.substr(0, before.size() - each.first.size());
      return rest.empty() || endsWithNewline(rest);
    });
    // No later equals sign of this line can end a key.
    const std::size_t end = findNewline(text, equals);
    if (entry != values.end())
      action(equals - entry->first.size(), end, *entry, text.substr(equals + 1, end - equals - 1));
    equals = end;
  }
}

std::optional<std::string> EnvFile::with(const EnvValues& values, std::size_t limit) const {
  std::set<std::string_view> written;
  std::size_t size = contents.size();
  forEachDefinition(values, [&](std::size_t, std::size_t, const auto& entry, std::string_view old) {
    size = size - old.size() + entry.second.size();
    written.insert(entry.first);
  });
  for (const auto& [key, value] : values) {
    if (!written.contains(key)) size += 3 + key.size() + value.size();
  }
  if (size > limit) return std::nullopt;

  std::string result;
  result.reserve(size);
  const std::string_view text = contents;
  std::size_t copied = 0;
  forEachDefinition(values, [&](std::size_t begin, std::size_t end, const auto& entry, std::string_view) {
    appendLines(result, text.substr(copied, begin - copied));
    result.append(entry.first).append("=").append(entry.second);
    copied = end;
  });
  appendLines(result, text.substr(copied));
  bool isFirst = !exists;
  bool lastIsEmpty = text.empty() || endsWithNewline(text);
  for (const auto& [key, value] : values) {
    if (written.contains(key)) continue;
    if (!isFirst) result += lastIsEmpty ? "\n" : "\n\n";
    result.append(key).append("=").append(value);
    isFirst = lastIsEmpty = false;
  }
  return result;
}

bool EnvFile::losesValue(const EnvValues& values, const EnvValues& shown) const {
  bool loses = false;
  forEachDefinition(values, [&](std::size_t, std::size_t, const auto& entry, std::string_view old) {
    const std::string_view value = trimmed(old);
    const auto before = shown.find(entry.first);
    const bool wasShown = before != shown.end() && trimmed(before->second) == value;
    loses = loses || (!value.empty() && !wasShown && value != trimmed(entry.second));
  });
  return loses;
}

bool EnvFile::holdsLineEnd(std::string_view text) {
  return findNewline(text, 0) < text.size();
}

}  // namespace kestrune
