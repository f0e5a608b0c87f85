#include <benchmark/benchmark.h>

#include <string>

#include "KestruneMenuClient/AppDelegate.h"

// Measures how long it takes to interpret status reports of 64 KiB to 16 MiB. A status report is the output
// of the backend's status command.

namespace {

std::string reportOf(std::size_t bytes) {
  std::string report;
  for (int i = 0; report.size() < bytes; ++i) {
    report += "[OK] Mac service " + std::to_string(i) + ": 127.0.0.1:8765 正常（PID 4711）\n";
  }
  return report + "[OK] ChatGPT Remote Ready: ready";
}

void interpret(benchmark::State& state) {
  const kestrune::CommandResult result{true, reportOf(static_cast<std::size_t>(state.range(0)))};
  for (auto _ : state) {
    benchmark::DoNotOptimize(kestrune::AppDelegate::inferLampState(result));
    for (const auto* label : {"Codex CLI", "Codex Remote Control", "Codex App", "ChatGPT Remote Ready"}) {
      benchmark::DoNotOptimize(kestrune::AppDelegate::diagnosticDetail(result.output, label));
    }
  }
  state.SetComplexityN(state.range(0));
}

BENCHMARK(interpret)
    ->RangeMultiplier(4)
    ->Range(1 << 16, 1 << 24)
    ->Unit(benchmark::kMillisecond)
    ->Complexity();

}  // namespace
