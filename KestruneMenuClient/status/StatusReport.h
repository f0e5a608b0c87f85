#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "KestruneMenuClient/status/ConnectionLampState.h"

// The report that the backend's "status" command prints. All functions are pure and may be called from any
// thread.

namespace kestrune {

enum class CodexVerdict { unknown, ok, needsCheck };

/// The result for one item of the Codex runtime in a report.
struct CodexFinding {
  CodexVerdict verdict = CodexVerdict::unknown;
  std::string detail{};  ///< at most 44 characters

  bool operator==(const CodexFinding&) const = default;
};

/// An item of the Codex runtime: its label in a report, and the prefix of its menu row.
struct CodexItem {
  std::string_view label;
  std::string_view rowPrefix;
};
/// In the order of the menu rows. Lines that contain one of these labels never affect the lamp.
inline constexpr std::array<CodexItem, 4> codexItems{{{"Codex CLI", "Codex："},
                                                      {"Codex Remote Control", "Remote Control："},
                                                      {"Codex App", "Codex App："},
                                                      {"ChatGPT Remote Ready", "ChatGPT Remote："}}};

/// The menu row for `item`, such as "Codex：OK 0.46.0".
std::string codexRow(const CodexItem& item, const CodexFinding& finding);

/// The finding that such a row tells; unknown for any other text.
CodexFinding codexFindingOfRow(const CodexItem& item, std::string_view row);

using CodexFindings = std::array<CodexFinding, codexItems.size()>;

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
