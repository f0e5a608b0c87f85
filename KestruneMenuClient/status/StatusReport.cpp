#include "KestruneMenuClient/status/StatusReport.h"

#include <algorithm>
#include <optional>

#include "text/Text.h"

namespace kestrune {

namespace {

constexpr std::size_t detailLimit = 44;  // characters
constexpr std::string_view okMarker = "[OK]";
constexpr std::string_view failMarker = "[FAIL]";
constexpr std::string_view okWord = "OK";
constexpr std::string_view needsCheckWord = "需檢查";

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

bool isFault(std::string_view line) {
  if (!contains(line, "無回應") && !contains(line, "未載入") && !contains(line, failMarker)) return false;
  return std::none_of(codexItems.begin(), codexItems.end(),
                      [line](const CodexItem& item) { return contains(line, item.label); });
}

/// The text after "MARKER LABEL: " at the start of `line`; absent when the line starts differently.
std::optional<std::string_view> detailAfter(std::string_view line, std::string_view marker,
                                            std::string_view label) {
  for (const std::string_view piece : {marker, std::string_view(" "), label, std::string_view(": ")}) {
    if (!line.starts_with(piece)) return std::nullopt;
    line.remove_prefix(piece.size());
  }
  return line;
}

/// The finding for `label` in a trimmed line; unknown when the line is about something else.
CodexFinding findingIn(std::string_view line, std::string_view label) {
  if (const auto detail = detailAfter(line, okMarker, label))
    return {CodexVerdict::ok, compactDetail(*detail)};
  if (const auto detail = detailAfter(line, failMarker, label))
    return {CodexVerdict::needsCheck, compactDetail(*detail)};
  return {};
}

}  // namespace

std::string codexRow(const CodexItem& item, const CodexFinding& finding) {
  const std::string prefix(item.rowPrefix);
  switch (finding.verdict) {
    case CodexVerdict::ok:
      return prefix + std::string(okWord) + " " + finding.detail;
    case CodexVerdict::needsCheck:
      return prefix + std::string(needsCheckWord) + " " + finding.detail;
    case CodexVerdict::unknown:
      break;
  }
  return prefix + "尚未檢查";
}

CodexFinding codexFindingOfRow(const CodexItem& item, std::string_view row) {
  if (!row.starts_with(item.rowPrefix)) return {};
  row.remove_prefix(item.rowPrefix.size());
  const auto detailAfterWord = [row](std::string_view word) {
    return std::string(trimmed(row.substr(word.size())));
  };
  if (row.starts_with(okWord)) return {CodexVerdict::ok, detailAfterWord(okWord)};
  if (row.starts_with(needsCheckWord)) return {CodexVerdict::needsCheck, detailAfterWord(needsCheckWord)};
  return {};
}

StatusReport::StatusReport(bool givenOk, std::string_view output)
    : ok(givenOk), lamp(ok ? ConnectionLampState::ok : ConnectionLampState::warning), text("狀態未知") {
  LineSplitter lines(output);
  bool isFirst = true;
  for (std::string_view line; lines.next(line); isFirst = false) {
    if (isFirst) text = line;
    if (isFault(line)) lamp = ConnectionLampState::error;
    const std::string_view item = trimmed(line);
    if (!item.starts_with('[')) continue;
    for (std::size_t i = 0; i < codexItems.size(); ++i) {
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
  // Before the text is cut, or part of a sequence would be left.
  const std::string plain = withoutEscapeSequences(detail);
  const std::string_view rest = trimmed(plain);
  return shortened(trimmed(rest.substr(0, rest.find("（"))), detailLimit);
}

std::string prettified(std::string_view output) {
  return replacingAll(replacingAll(output, okMarker, "🟢"), failMarker, "🔴");
}

}  // namespace kestrune
