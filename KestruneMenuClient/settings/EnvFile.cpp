#include "KestruneMenuClient/settings/EnvFile.h"

#include <algorithm>
#include <set>
#include <utility>
#include <vector>

#include "KestruneMenuClient/Text.h"

namespace kestrune {

namespace {

/// The lines as the reader of .env sees them: CR LF is one character that ends no line.
std::vector<std::string_view> linesForReading(std::string_view text) {
  std::vector<std::string_view> lines;
  std::size_t begin = 0;
  for (std::size_t at = 0; at <= text.size(); ++at) {
    const bool ends = at == text.size() || (text[at] == '\n' && (at == 0 || text[at - 1] != '\r'));
    if (!ends) continue;
    if (at > begin) lines.push_back(text.substr(begin, at - begin));
    begin = at + 1;
  }
  return lines;
}

/// The length of the line separator that `text` begins with; 0 when it begins with none. CR LF is two.
std::size_t separatorLength(std::string_view text) {
  if (text.front() >= '\n' && text.front() <= '\r') return 1;
  for (const std::string_view separator : {"\u0085", "\u2028", "\u2029"}) {
    if (text.starts_with(separator)) return separator.size();
  }
  return 0;
}

/// The lines as the writer of .env sees them: every separator counts by itself, and empty lines are kept.
std::vector<std::string> linesForWriting(std::string_view text) {
  std::vector<std::string> lines(1);
  while (!text.empty()) {
    const std::size_t length = separatorLength(text);
    if (length > 0) {
      lines.emplace_back();
    } else {
      lines.back() += text.front();
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return lines;
}

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (std::size_t i = 0; i < lines.size(); ++i) text += (i > 0 ? "\n" : "") + lines[i];
  return text;
}

}  // namespace

EnvFile::EnvFile(std::string givenText) : text(std::move(givenText)) {}

std::optional<std::string> EnvFile::value(std::string_view key) const {
  if (!text) return std::nullopt;
  const std::string prefix = std::string(key) + "=";
  for (const std::string_view line : linesForReading(*text)) {
    if (line.starts_with(prefix)) return std::string(trimmed(line.substr(prefix.size())));
  }
  return std::nullopt;
}

std::string EnvFile::with(const EnvValues& values) const {
  std::vector<std::string> lines;
  if (text) lines = linesForWriting(*text);
  std::set<std::string> written;
  for (auto& line : lines) {
    const auto equals = line.find('=');
    if (equals == std::string::npos) continue;
    const auto value = values.find(line.substr(0, equals));
    if (value == values.end()) continue;
    line = value->first + "=" + value->second;
    written.insert(value->first);
  }
  for (const auto& [key, value] : values) {
    if (written.contains(key)) continue;
    if (!lines.empty() && !lines.back().empty()) lines.emplace_back();
    lines.push_back(key + "=" + value);
  }
  return joined(lines);
}

bool EnvFile::holdsLineEnd(std::string_view text) {
  return linesForWriting(text).size() > 1;
}

}  // namespace kestrune
