#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

ConnectionLampState lampOf(bool ok, const std::string& output) {
  return AppDelegate::inferLampState({ok, output});
}

const char* const newlines[] = {"\n", "\r\n", "\r", "\v", "\f", "\u0085", "\u2028", "\u2029"};

TEST(ReportInterpretation, ReportWithoutFaultFollowsTheExitStatus) {
  EXPECT_EQ(lampOf(true, "[OK] Mac service: running"), ConnectionLampState::ok);
  EXPECT_EQ(lampOf(false, "[OK] Mac service: running"), ConnectionLampState::warning);
}

TEST(ReportInterpretation, EachFaultMarkerIsAnErrorWhateverTheExitStatus) {
  for (const char* report : {"[FAIL] tunnel: down", "desktop bridge 未載入", "Mac service 無回應", "x[FAIL]y",
                             "[OK] tunnel: 無回應", "未載入", "無回應"}) {
    EXPECT_EQ(lampOf(true, report), ConnectionLampState::error) << report;
    EXPECT_EQ(lampOf(false, report), ConnectionLampState::error) << report;
  }
}

TEST(ReportInterpretation, OneFaultAmongManyLinesIsEnough) {
  EXPECT_EQ(lampOf(true, "[OK] a: b\n\n  [FAIL] tunnel: down  \n[OK] c: d\n"), ConnectionLampState::error);
}

TEST(ReportInterpretation, MarkersAreExact) {
  for (const char* report :
       {"[fail] x", "[FAIL ] x", "FAIL", "[ FAIL] x", "無 回應", "未載 入", "[FAI\nL] x", "無\n回應"}) {
    EXPECT_EQ(lampOf(true, report), ConnectionLampState::ok) << report;
  }
}

TEST(ReportInterpretation, LinesOfTheCodexRuntimeNeverTouchTheLamp) {
  for (const char* label : {"Codex CLI", "Codex Remote Control", "Codex App", "ChatGPT Remote Ready"}) {
    for (const char* fault : {"[FAIL]", "無回應", "未載入"}) {
      const std::string line = std::string(fault) + " " + label + ": not found";
      EXPECT_EQ(lampOf(true, line), ConnectionLampState::ok) << line;
      EXPECT_EQ(lampOf(false, line), ConnectionLampState::warning) << line;
    }
  }
}

TEST(ReportInterpretation, LineThatMentionsACodexLabelAnywhereIsLeftOut) {
  EXPECT_EQ(lampOf(true, "[FAIL] bridge of the Codex App: 無回應"), ConnectionLampState::ok);
  EXPECT_EQ(lampOf(true, "[FAIL] xCodex CLIx"), ConnectionLampState::ok);
}

TEST(ReportInterpretation, CodexLabelsAreExact) {
  for (const char* line : {"[FAIL] codex cli: x", "[FAIL] Codex  CLI: x", "[FAIL] Codex: x",
                           "[FAIL] CodexApp: x", "[FAIL] ChatGPT Remote: x"}) {
    EXPECT_EQ(lampOf(true, line), ConnectionLampState::error) << line;
  }
}

TEST(ReportInterpretation, LabelAndFaultOnDifferentLinesHaveNothingToDoWithEachOther) {
  for (const char* newline : newlines) {
    EXPECT_EQ(lampOf(true, std::string("Codex App") + newline + "[FAIL] tunnel: down"),
              ConnectionLampState::error);
    EXPECT_EQ(lampOf(true, std::string("[FAIL] tunnel: down") + newline + "[OK] Codex CLI: 1"),
              ConnectionLampState::error);
    EXPECT_EQ(lampOf(true, std::string("[FAIL] Codex CLI: x") + newline + "[OK] tunnel: up"),
              ConnectionLampState::ok);
  }
}

TEST(ReportInterpretation, FixedTextsOfTheRunnerFollowTheExitStatus) {
  EXPECT_EQ(lampOf(true, "沒有輸出。"), ConnectionLampState::ok);
  EXPECT_EQ(lampOf(false, "沒有輸出。"), ConnectionLampState::warning);
  EXPECT_EQ(lampOf(false, "命令逾時，已停止等待。"), ConnectionLampState::warning);
  EXPECT_EQ(lampOf(false, "[OK] Mac service: running\n命令逾時，已停止等待。"), ConnectionLampState::warning);
  EXPECT_EQ(lampOf(false, "No such file or directory"), ConnectionLampState::warning);
}

TEST(ReportInterpretation, EmptyReportFollowsTheExitStatus) {
  EXPECT_EQ(lampOf(true, ""), ConnectionLampState::ok);
  EXPECT_EQ(lampOf(false, ""), ConnectionLampState::warning);
}

TEST(ReportInterpretation, FaultAtTheEndOfALongReportIsFound) {
  std::string report;
  while (report.size() < 1U << 20) report += "[OK] item: running（all is well）\n[FAIL] Codex CLI: old\n";
  EXPECT_EQ(lampOf(true, report), ConnectionLampState::ok);
  EXPECT_EQ(lampOf(true, report + "[FAIL] tunnel: down"), ConnectionLampState::error);
}

TEST(DisplayForm, ReplacesTheMarkersByDots) {
  EXPECT_EQ(AppDelegate::prettifyOutput("[OK] a\n[FAIL] b"), "🟢 a\n🔴 b");
}

TEST(DisplayForm, ReplacesEveryMarkerWhereverItStands) {
  EXPECT_EQ(AppDelegate::prettifyOutput("[OK][OK] x[FAIL]y[FAIL]"), "🟢🟢 x🔴y🔴");
  EXPECT_EQ(AppDelegate::prettifyOutput("[FAIL] Codex CLI: x"), "🔴 Codex CLI: x");
}

TEST(DisplayForm, ChangesNothingElse) {
  for (const char* text : {"", " [ok] [OK [FAIL ] OK \r\n\t沒有輸出。（x） \n", "[[O]K]", "[FAI[L]"}) {
    EXPECT_EQ(AppDelegate::prettifyOutput(text), text);
  }
  EXPECT_EQ(AppDelegate::prettifyOutput("[[OK]]"), "[🟢]");
}

}  // namespace
}  // namespace kestrune::testing
