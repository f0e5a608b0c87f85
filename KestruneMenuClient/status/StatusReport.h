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

/// What a report says about one item of the Codex runtime.
struct CodexFinding {
  CodexVerdict verdict = CodexVerdict::unknown;
  std::string detail{};  ///< at most 44 characters

  bool operator==(const CodexFinding&) const = default;
};

/// An item of the Codex runtime: its label in a report, and what its row of the menu begins with.
struct CodexItem {
  std::string_view label;
  std::string_view rowPrefix;
};
/// In the order of their rows. Lines that mention one of these labels never affect the lamp.
inline constexpr std::array<CodexItem, 4> codexItems{{{"Codex CLI", "Codex："},
                                                      {"Codex Remote Control", "Remote Control："},
                                                      {"Codex App", "Codex App："},
                                                      {"ChatGPT Remote Ready", "ChatGPT Remote："}}};

/// The row of the menu for `item`, such as "Codex：OK 0.46.0".
std::string codexRow(const CodexItem& item, const CodexFinding& finding);

/// The finding that such a row tells; unknown for any other text.
CodexFinding codexFindingOfRow(const CodexItem& item, std::string_view row);

using CodexFindings = std::array<CodexFinding, codexItems.size()>;

/// A report, read once. `ok`: the command ended in time with exit status 0.
struct StatusReport {
  StatusReport(bool ok, std::string_view output);

  bool ok;
  ConnectionLampState lamp;
  std::string text;  ///< one line for the menu: the lamp's word, or the first line of a command that failed
  CodexFindings codex;
};

/// The finding of the first line of `output` that carries `label`; unknown when no line does.
CodexFinding codexFinding(std::string_view output, std::string_view label);

/// What stands before the first full-width parenthesis, trimmed and at most 44 characters long.
std::string compactDetail(std::string_view detail);

/// A report as windows show it: with coloured dots instead of its markers.
std::string prettified(std::string_view output);

}  // namespace kestrune
