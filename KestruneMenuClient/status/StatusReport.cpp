#include "KestruneMenuClient/status/StatusReport.h"

#include <algorithm>

#include "text/Text.h"

namespace kestrune {

constexpr std::size_t detailLimit = 44;  // characters; compactDetail() cuts a longer detail
constexpr std::string_view okMarker = "[OK]";
constexpr std::string_view failMarker = "[FAIL]";

static bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

static bool isFault(std::string_view line) {
  if (!contains(line, "無回應") && !contains(line, "未載入") && !contains(line, failMarker)) return false;
  return std::ranges::none_of(codexItems, [line](auto& item) { return contains(line, item.label); });
}

/// Returns what the trimmed `line` says about `label`, see `codexFinding`.
static CodexFinding findingIn(std::string_view line, std::string_view label) {
  const bool isOk = line.starts_with(okMarker);
  if (!isOk && !line.starts_with(failMarker)) return {};
  line.remove_prefix(isOk ? okMarker.size() : failMarker.size());
  if (!line.starts_with(' ') || !line.substr(1).starts_with(label)) return {};
  line.remove_prefix(1 + label.size());
  if (!line.starts_with(": ")) return {};
  return {isOk ? CodexVerdict::ok : CodexVerdict::needsCheck, compactDetail(line.substr(2))};
}

std::string codexRow(std::string_view prefix, const CodexFinding& finding) {
  const std::string row(prefix);
  if (finding.verdict == CodexVerdict::unknown) return row + "尚未檢查";
  return row + (finding.verdict == CodexVerdict::ok ? "OK " : "需檢查 ") + finding.detail;
}

StatusReport::StatusReport(bool ok, std::string_view output)
    : lamp(ok ? ConnectionLampState::ok : ConnectionLampState::warning), text("狀態未知") {
  LineSplitter lines(output);
  bool isFirst = true;
  for (std::string_view line; lines.next(line); isFirst = false) {
    if (isFirst) text = line;
    if (isFault(line)) lamp = ConnectionLampState::error;
    const std::string_view item = trimmed(line);
    for (std::size_t i = 0; item.starts_with('[') && i < codexItems.size(); ++i) {
      if (codex[i].verdict == CodexVerdict::unknown) codex[i] = findingIn(item, codexItems[i].label);
    }
  }
  if (ok) text = menuLabel(lamp);
}

CodexFinding codexFinding(std::string_view output, std::string_view label) {
  LineSplitter lines(output);
  CodexFinding finding;
  for (std::string_view line; finding.verdict == CodexVerdict::unknown && lines.next(line);)
    finding = findingIn(trimmed(line), label);
  return finding;
}

std::string compactDetail(std::string_view detail) {
  const std::string plain = withoutEscapeSequences(detail);
  return shortened(trimmed(std::string_view(plain).substr(0, plain.find("（"))), detailLimit);
}

std::string prettified(std::string_view output) {
  return replacingAll(replacingAll(output, okMarker, "🟢"), failMarker, "🔴");
}

}  // namespace kestrune
