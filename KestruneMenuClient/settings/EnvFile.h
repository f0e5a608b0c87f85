#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "ports/FileManager.h"

namespace kestrune {

/// Values of the backend's .env by their keys. No key holds an equals sign.
using EnvValues = std::map<std::string, std::string>;

/// The text of the backend's .env: lines of the form KEY=VALUE, without quotes, escapes or comments behind a
/// value. Reader and writer split lines differently. Pure; any thread. Beside the text itself and the one
/// that `with` returns, no operation needs memory that grows with the text.
class EnvFile {
 public:
  /// A file that does not exist: it has no line, not even an empty one.
  EnvFile() = default;
  /// `contents` are well-formed UTF-8.
  explicit EnvFile(std::string contents);

  /// The file that was read; absent when it was not, or is not well-formed UTF-8.
  static std::optional<EnvFile> in(FileContents read);

  /// Empty also for a file that does not exist.
  const std::string& text() const { return contents; }

  /// The value in the first line that begins with `key` and an equals sign, trimmed, possibly empty; absent
  /// when no line does. A line feed ends a line, but not behind a carriage return.
  std::optional<std::string> value(std::string_view key) const;
  /// The value of `legacyKey` when `key` has none.
  std::optional<std::string> value(std::string_view key, std::string_view legacyKey) const;

  /// The text with `values`: every line that defines one of the keys is rewritten, and the keys that have no
  /// line are appended in ascending order. Every newline character ends a line, CR LF two, and each becomes a
  /// line feed. Absent when the result could be longer than `limit` bytes, newline characters counted as they
  /// were.
  std::optional<std::string> with(const EnvValues& values, std::size_t limit) const;

  /// Whether `with(values)` replaces a value that is not empty, and neither the one in `shown` nor the one in
  /// `values` for that key. Blanks around a value make no difference.
  bool losesValue(const EnvValues& values, const EnvValues& shown) const;

  /// Whether `text` holds a character that ends a line for the writer.
  static bool holdsLineEnd(std::string_view text);

 private:
  template <typename Action>
  void forEachDefinition(const EnvValues& values, Action&& action) const;

  bool exists = false;
  std::string contents;
};

}  // namespace kestrune
