#include "fuzz/Controller.h"
#include "fuzz/Fuzz.h"

#include "text/Text.h"

// Fuzzes the status report. The first byte of the input says whether the status command succeeds ('0') or
// fails (any other byte). The rest of the input is the command's output.

namespace {

using namespace kestrune;
using fuzz::require;

constexpr std::string_view okMarker = "[OK]";
constexpr std::string_view failMarker = "[FAIL]";

bool holds(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

/// Returns the state of the lamp (the health of the backend) that is right for `result`. Lines that contain
/// one of the four labels below have no influence on the lamp.
ConnectionLampState expectedLamp(const CommandResult& result) {
  std::string kept;
  LineSplitter lines(result.output);
  for (std::string_view line; lines.next(line);) {
    bool isReserved = false;
    for (const char* const label :
         {"Codex CLI", "Codex Remote Control", "Codex App", "ChatGPT Remote Ready"}) {
      isReserved = isReserved || holds(line, label);
    }
    if (!isReserved) kept.append(line).append("\n");
  }
  for (const char* const fault : {"無回應", "未載入", "[FAIL]"}) {
    if (holds(kept, fault)) return ConnectionLampState::error;
  }
  return result.ok ? ConnectionLampState::ok : ConnectionLampState::warning;
}

void checkSummary(const std::string& summary, std::string_view prefix) {
  require(summary.starts_with(prefix), "a summary begins with its prefix");
  std::string_view detail = std::string_view(summary).substr(prefix.size());
  if (detail == "尚未檢查") return;
  for (const std::string_view verdict : {"OK ", "需檢查 "}) {
    if (!detail.starts_with(verdict)) continue;
    detail.remove_prefix(verdict.size());
    require(shortened(detail, 44) == detail, "a detail has at most 44 characters");
    require(!holds(detail, "（"), "a detail has no explanation");
    std::string_view line;
    require(!LineSplitter(detail).next(line) || line == detail, "a detail is one line");
    return;
  }
  require(false, "a detail begins with OK or 需檢查");
}

void interpret(const CommandResult& result) {
  require(AppDelegate::inferLampState(result) == expectedLamp(result), "the lamp is the expected one");

  const std::string pretty = AppDelegate::prettifyOutput(result.output);
  require(!holds(pretty, okMarker) && !holds(pretty, failMarker), "the shown text has no marker");
  if (!holds(result.output, "🟢") && !holds(result.output, "🔴")) {
    require(replacingAll(replacingAll(pretty, "🟢", okMarker), "🔴", failMarker) == result.output,
            "only the markers are replaced");
  }
}

/// Runs a status command whose output is `report`. Checks the rows of the menu afterwards.
void refresh(bool ok, std::string report) {
  fuzz::Controller controller;
  auto& machine = controller.machine;
  machine.processes.scripts = {{"status", {.status = ok ? 0 : 1, .output = std::move(report)}}};
  controller.delegate->refreshStatus(false);
  machine.loop.settle();

  require(!controller.state.statusRefreshInProgress, "a refresh ends");
  for (std::size_t i = 0; i < codexItems.size(); ++i) {
    checkSummary(machine.statusItem.row(i + 4).title, codexItems[i].rowPrefix);
  }
  require(machine.statusItem.menu().items.size() == 29, "the menu has its rows");
  for (const auto& item : machine.statusItem.menu().items) {
    require(isValidUtf8(item.title), "a row is text");
    std::string_view line;
    require(!LineSplitter(item.title).next(line) || line == item.title, "a row is one line");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const bool ok = input.byte() == '0';
  const std::string report(input.rest());
  interpret({ok, report});
  refresh(ok, report);
  return 0;
}
