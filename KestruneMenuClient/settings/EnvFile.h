#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace kestrune {

/// Values of the backend's .env by their keys. No key holds an equals sign.
using EnvValues = std::map<std::string, std::string>;

/// The text of the backend's .env: lines of the form KEY=VALUE, without quotes, escapes or comments behind a
/// value. Reader and writer split lines differently. Pure; any thread.
class EnvFile {
 public:
  /// A file that does not exist: it has no line, not even an empty one.
  EnvFile() = default;
  /// `text` is well-formed UTF-8.
  explicit EnvFile(std::string text);

  /// The value in the first line that begins with `key` and an equals sign, trimmed, possibly empty; absent
  /// when no line does. A line feed ends a line, but not behind a carriage return.
  std::optional<std::string> value(std::string_view key) const;

  /// The text with `values`: every line that defines one of the keys is rewritten, and the keys that have no
  /// line are appended in ascending order. Every newline character ends a line, CR LF two, and each becomes a
  /// line feed.
  std::string with(const EnvValues& values) const;

  /// Whether `text` holds a character that ends a line for the writer.
  static bool holdsLineEnd(std::string_view text);

 private:
  std::optional<std::string> text;
};

}  // namespace kestrune
