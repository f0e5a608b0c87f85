#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "ports/FileManager.h"

namespace kestrune {

/// The keys of the backend's .env that the client reads and writes. A legacy key is read when the current one
/// is absent, and never written.
namespace env {

inline constexpr auto publicAPIURL = "KESTRUNE_PUBLIC_API_URL";
inline constexpr auto appAPIToken = "KESTRUNE_APP_API_TOKEN";
inline constexpr auto legacyAppAPIToken = "HALVASK_APP_API_TOKEN";
inline constexpr auto macServiceToken = "KESTRUNE_MAC_SERVICE_TOKEN";
inline constexpr auto legacyMacServiceToken = "HALVASK_MAC_SERVICE_TOKEN";
inline constexpr auto projectRoot = "KESTRUNE_PROJECT_ROOT";
inline constexpr auto legacyProjectRoot = "HALVASK_PROJECT_ROOT";
inline constexpr auto openAIAPIKey = "OPENAI_API_KEY";

/// The relay's address until the user has set one.
inline constexpr auto placeholderPublicAPIURL = "https://relay.example.com";

}  // namespace env

/// Values of the backend's .env by key. A key contains no equals sign.
using EnvValues = std::map<std::string, std::string>;

/// The text of the backend's .env: lines of the form KEY=VALUE, without quotes, escapes or trailing comments.
/// Reader and writer split lines differently. Pure; any thread. Only the text and the result of `with` need
/// memory that grows with the text.
class EnvFile {
 public:
  /// A file that does not exist. It has no line, not even an empty one.
  EnvFile() = default;
  /// `contents` are well-formed UTF-8.
  explicit EnvFile(std::string contents);

  /// The file that was read; absent when reading failed, or when it is not well-formed UTF-8.
  static std::optional<EnvFile> in(FileContents read);

  /// Also empty for a file that does not exist.
  const std::string& text() const { return contents; }

  /// The trimmed value, possibly empty, in the first line that begins with `key` and an equals sign; absent
  /// when there is none. A line feed ends a line, except after a carriage return.
  std::optional<std::string> value(std::string_view key) const;
  /// The value of `key`, else of `legacyKey`.
  std::optional<std::string> value(std::string_view key, std::string_view legacyKey) const;

  /// The text with `values`: rewrites every line that defines one of the keys, and appends the missing keys
  /// in ascending order. Every newline character ends a line, so CR LF ends two, and each becomes a line
  /// feed. Absent when the result would exceed `limit` bytes.
  std::optional<std::string> with(const EnvValues& values, std::size_t limit) const;

  /// Whether `with(values)` replaces a non-empty value that differs from those in `shown` and `values` for
  /// that key. Ignores white space around a value.
  bool losesValue(const EnvValues& values, const EnvValues& shown) const;

  /// Whether `text` contains a character that ends a line for the writer.
  static bool holdsLineEnd(std::string_view text);

 private:
  bool exists = false;
  std::string contents;
};

}  // namespace kestrune
