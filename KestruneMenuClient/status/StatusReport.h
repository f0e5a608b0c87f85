#pragma once

#include <array>
#include <string>
#include <string_view>

// Reads a report, which is the output of the backend's command "status". All functions are pure and may be
// called from any thread.

namespace kestrune {

/// The backend's health, which the lamp shows as green, yellow or red.
enum class ConnectionLampState { ok, warning, error };

/// Returns the lamp as a coloured dot.
inline std::string_view menuIcon(ConnectionLampState state) {
  static constexpr std::string_view icons[] = {"🟢", "🟡", "🔴"};
  return icons[static_cast<std::size_t>(state)];
}

/// Returns the lamp as a word.
inline std::string_view menuLabel(ConnectionLampState state) {
  static constexpr std::string_view labels[] = {"已連線", "檢查中", "異常"};
  return labels[static_cast<std::size_t>(state)];
}

enum class CodexVerdict { unknown, ok, needsCheck };

/// What a report says about one item of the Codex runtime.
struct CodexFinding {
  CodexVerdict verdict = CodexVerdict::unknown;
  std::string detail{};  ///< at most 44 characters
};

/// An item of the Codex runtime: its label in a report, the prefix of its menu row, its name in JSON.
struct CodexItem {
  std::string_view label;
  std::string_view rowPrefix;
  const char* name;
};
/// The items, in the order of their menu rows. A report's line with such a label never affects the lamp.
inline constexpr std::array<CodexItem, 4> codexItems{
    {{"Codex CLI", "Codex：", "codex_cli"},
     {"Codex Remote Control", "Remote Control：", "codex_remote_control"},
     {"Codex App", "Codex App：", "codex_app"},
     {"ChatGPT Remote Ready", "ChatGPT Remote：", "chatgpt_remote"}}};

using CodexFindings = std::array<CodexFinding, codexItems.size()>;

/// Returns a menu row such as "Codex：OK 0.46.0".
std::string codexRow(std::string_view prefix, const CodexFinding& finding);

/// A parsed report.
struct StatusReport {
  /// `ok`: whether the command exited with status 0 before the timeout.
  StatusReport(bool ok, std::string_view output);

  ConnectionLampState lamp;
  std::string text;  ///< for the menu: `menuLabel(lamp)`, or the output's first line if `ok` is false
  CodexFindings codex;
};

/// Searches `output` for the first line "[OK] LABEL: DETAIL" or "[FAIL] LABEL: DETAIL" whose LABEL is
/// `label`. Returns what this line says; an unknown finding if there is no such line.
CodexFinding codexFinding(std::string_view output, std::string_view label);

/// Returns the part of `detail` before the first full-width parenthesis, trimmed, at most 44 characters long.
std::string compactDetail(std::string_view detail);

/// Returns the report as a window shows it: with coloured dots instead of the markers [OK] and [FAIL].
std::string prettified(std::string_view output);

}  // namespace kestrune
