#include "KestruneMenuClient/settings/EnvFile.h"

#include <utility>

#include "text/Text.h"

namespace kestrune {

/// Returns whether the character at `at` ends a line for `EnvFile::value`.
static bool endsLine(std::string_view text, std::size_t at) {
  return text[at] == '\n' && (at == 0 || text[at - 1] != '\r');
}

/// Returns the entry of `values` whose key the line defines; `values.end()` when there is no such entry.
static EnvValues::const_iterator entryFor(std::string_view line, const EnvValues& values) {
  const auto equals = line.find('=');
  return equals != std::string_view::npos ? values.find(std::string(line.substr(0, equals))) : values.end();
}

EnvFile::EnvFile(FileContents read)
    : exists(read.outcome == ReadOutcome::read && isValidUtf8(read.bytes)),
      contents(exists ? std::move(read.bytes) : std::string()) {}

std::optional<std::string> EnvFile::value(std::string_view key, std::string_view legacyKey) const {
  const std::string prefix = std::string(key) + "=";
  const std::string_view text = contents;
  // Search for the key first: a look at each line would take too long in a file with a million lines.
  for (auto at = text.find(prefix); at != std::string_view::npos; at = text.find(prefix, at + 1)) {
    if (at > 0 && !endsLine(text, at - 1)) continue;
    const std::size_t begin = at + prefix.size();
    std::size_t end = begin;
    while (end < text.size() && !endsLine(text, end)) ++end;
    return std::string(trimmed(text.substr(begin, end - begin)));
  }
  return legacyKey.empty() ? std::nullopt : value(legacyKey);
}

std::optional<std::string> EnvFile::with(const EnvValues& values) const {
  constexpr std::size_t limit = FileManager::sizeLimit + 1;  // with the LF that is removed at the end
  std::string result;
  std::size_t expected = contents.size() + 1;
  EnvValues missing = values;
  for (const auto& [key, value] : values) expected += key.size() + value.size() + 3;
  result.reserve(expected);
  const auto define = [&result](const auto& entry) {
    result.append(entry.first).append("=").append(entry.second).append("\n");
  };
  LineSplitter lines(contents, CrLf::twoNewlines);
  std::string_view line;
  while (lines.next(line) && result.size() <= limit) {
    if (const auto entry = entryFor(line, values); entry != values.end()) {
      define(*entry);
      missing.erase(entry->first);
    } else {
      result.append(line).append("\n");
    }
  }
  // A file that exists but is empty has one line, which is empty. A file that does not exist has no line.
  if (exists && contents.empty()) result += '\n';
  // Put an empty line before each appended key, but none before the first one if the last line is already
  // empty, or if the file has no line.
  bool needsEmptyLine = !line.empty();
  for (const auto& entry : missing) {
    if (std::exchange(needsEmptyLine, true)) result += '\n';
    define(entry);
  }
  if (result.size() > limit) return std::nullopt;
  if (!result.empty()) result.pop_back();
  return result;
}

bool EnvFile::losesValue(const EnvValues& values, const EnvValues& shown) const {
  LineSplitter lines(contents, CrLf::twoNewlines);
  for (std::string_view line; lines.next(line);) {
    const auto entry = entryFor(line, values);
    if (entry == values.end()) continue;
    const std::string_view value = trimmed(line.substr(entry->first.size() + 1));
    const auto before = shown.find(entry->first);
    const bool wasShown = before != shown.end() && trimmed(before->second) == value;
    if (!value.empty() && !wasShown && value != trimmed(entry->second)) return true;
  }
  return false;
}

bool EnvFile::holdsLineEnd(std::string_view text) {
  std::string_view line;
  return LineSplitter(text).next(line) && line.size() < text.size();
}

}  // namespace kestrune
