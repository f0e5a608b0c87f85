#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

// The report that the backend's "status" command prints. All functions are pure and may be called from any
// thread.

namespace kestrune {

/// The backend's health.
enum class ConnectionLampState { ok, warning, error };

/// The lamp as a coloured dot, and as a word.
std::string_view menuIcon(ConnectionLampState state);
std::string_view menuLabel(ConnectionLampState state);

enum class CodexVerdict { unknown, ok, needsCheck };

/// The result for one item of the Codex runtime in a report.
struct CodexFinding {
  CodexVerdict verdict = CodexVerdict::unknown;
  std::string detail{};  ///< at most 44 characters

  bool operator==(const CodexFinding&) const = default;
};

/// An item of the Codex runtime: its label in a report, the prefix of its menu row, its name for programs.
struct CodexItem {
  std::string_view label;
  std::string_view rowPrefix;
  const char* name;
};
/// In the order of the menu rows. Lines that contain one of these labels never affect the lamp.
inline constexpr std::array<CodexItem, 4> codexItems{
    {{"Codex CLI", "Codex：", "codex_cli"},
     {"Codex Remote Control", "Remote Control：", "codex_remote_control"},
     {"Codex App", "Codex App：", "codex_app"},
     {"ChatGPT Remote Ready", "ChatGPT Remote：", "chatgpt_remote"}}};

using CodexFindings = std::array<CodexFinding, codexItems.size()>;

/// A menu row such as "Codex：OK 0.46.0".
std::string codexRow(std::string_view prefix, const CodexFinding& finding);

/// A parsed report. `ok`: the command exited with status 0 before the timeout.
struct StatusReport {
  StatusReport(bool ok, std::string_view output);

  bool ok;
  ConnectionLampState lamp;
  std::string text;  ///< one line for the menu: the lamp's word, or the first line of a command that failed
  CodexFindings codex;
};

/// The finding of the first line of `output` with `label`; unknown when there is none.
CodexFinding codexFinding(std::string_view output, std::string_view label);

/// The text before the first full-width parenthesis, trimmed, at most 44 characters long.
std::string compactDetail(std::string_view detail);

/// The report for a window: with coloured dots instead of markers.
std::string prettified(std::string_view output);

}  // namespace kestrune
