#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "ports/FileManager.h"

namespace kestrune {

/// The keys of the backend's .env that the client reads and writes. A legacy key is read when the current key
/// is absent, and is never written.
namespace env {

inline constexpr auto publicAPIURL = "KESTRUNE_PUBLIC_API_URL";
inline constexpr auto appAPIToken = "KESTRUNE_APP_API_TOKEN";
inline constexpr auto legacyAppAPIToken = "HALVASK_APP_API_TOKEN";
inline constexpr auto macServiceToken = "KESTRUNE_MAC_SERVICE_TOKEN";
inline constexpr auto legacyMacServiceToken = "HALVASK_MAC_SERVICE_TOKEN";
inline constexpr auto projectRoot = "KESTRUNE_PROJECT_ROOT";
inline constexpr auto legacyProjectRoot = "HALVASK_PROJECT_ROOT";
inline constexpr auto openAIAPIKey = "OPENAI_API_KEY";

/// The value that is assumed for the key `publicAPIURL` if .env does not define the key.
inline constexpr auto placeholderPublicAPIURL = "https://relay.example.com";

}  // namespace env

/// Values of the backend's .env by key. A key must not contain an equals sign.
using EnvValues = std::map<std::string, std::string>;

/// The text of the backend's .env: lines of the form KEY=VALUE. Quotes, backslashes and "#" have no special
/// meaning in a value. `value` and `with` differ in what ends a line. Reads and writes no file. Any thread.
class EnvFile {
 public:
  explicit EnvFile(FileContents read);

  /// Returns whether the file was read and is well-formed UTF-8. If not, the text is empty and has no line,
  /// so `with` writes the first key in line 1. An empty file has one empty line, which `with` keeps.
  bool isThere() const { return exists; }

  /// Returns the whole text; empty if `isThere` is false.
  const std::string& text() const { return contents; }

  /// Returns the trimmed value, possibly empty, in the first line that begins with `key` and an equals sign;
  /// else the value of `legacyKey`, if given; absent when no line has either key. As in the backend, an LF
  /// ends a line, unless it follows a CR. So a file in which each LF follows a CR is one line.
  std::optional<std::string> value(std::string_view key, std::string_view legacyKey = {}) const;

  /// Returns the text with `values` set; absent when it would exceed `FileManager::sizeLimit`. Sets the value
  /// in every line that begins with one of the keys and an equals sign, and appends the missing keys in
  /// ascending order. Here each newline character (see `trimmed` in Text.h) ends a line, and becomes LF in
  /// the result. So CR LF ends two lines.
  std::optional<std::string> with(const EnvValues& values) const;

  /// Returns whether `with(values)` would change a non-empty value that the user has not seen. `shown`: the
  /// values that the user has seen. Compares values without the white space and newlines around them.
  bool losesValue(const EnvValues& values, const EnvValues& shown) const;

  /// Returns whether `text` contains a character that ends a line for `with`.
  static bool holdsLineEnd(std::string_view text);

 private:
  bool exists;
  std::string contents;
};

}  // namespace kestrune
