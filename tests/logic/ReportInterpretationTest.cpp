#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

ConnectionLampState lampOf(bool ok, const std::string& output) {
  return AppDelegate::inferLampState({ok, output});
}

TEST(ReportInterpretation, EachFaultMarkerIsAnErrorWhateverTheExitStatus) {
  for (const char* report :
       {"[FAIL] tunnel: down", "desktop bridge 未載入", "Mac service 無回應", "x[FAIL]y",
        "[OK] tunnel: 無回應", "未載入", "無回應", "[OK] a: b\n\n  [FAIL] tunnel: down  \n[OK] c: d\n"}) {
    EXPECT_EQ(lampOf(true, report), ConnectionLampState::error) << report;
    EXPECT_EQ(lampOf(false, report), ConnectionLampState::error) << report;
  }
}

TEST(ReportInterpretation, MarkersAreExact) {
  for (const char* report :
       {"[fail] x", "[FAIL ] x", "FAIL", "[ FAIL] x", "無 回應", "未載 入", "[FAI\nL] x", "無\n回應"}) {
    EXPECT_EQ(lampOf(true, report), ConnectionLampState::ok) << report;
  }
}

TEST(ReportInterpretation, LinesOfTheCodexRuntimeNeverTouchTheLamp) {
  for (const std::string label : {"Codex CLI", "Codex Remote Control", "Codex App", "ChatGPT Remote Ready"}) {
    for (const char* fault : {"[FAIL] ", "無回應 x", "[FAIL] bridge of 未載入 "}) {
      EXPECT_EQ(lampOf(true, fault + label + ": not found"), ConnectionLampState::ok) << fault << label;
      EXPECT_EQ(lampOf(false, fault + label + "x"), ConnectionLampState::warning) << fault << label;
    }
  }
}

TEST(ReportInterpretation, CodexLabelsAreExact) {
  for (const char* line : {"[FAIL] codex cli: x", "[FAIL] Codex  CLI: x", "[FAIL] Codex: x",
                           "[FAIL] CodexApp: x", "[FAIL] ChatGPT Remote: x"}) {
    EXPECT_EQ(lampOf(true, line), ConnectionLampState::error) << line;
  }
}

TEST(ReportInterpretation, LabelAndFaultOnDifferentLinesHaveNothingToDoWithEachOther) {
  for (const std::string newline : {"\n", "\r\n", "\u2028"}) {
    EXPECT_EQ(lampOf(true, "Codex App" + newline + "[FAIL] tunnel: down"), ConnectionLampState::error);
    EXPECT_EQ(lampOf(true, "[FAIL] tunnel: down" + newline + "[OK] Codex CLI: 1"),
              ConnectionLampState::error);
    EXPECT_EQ(lampOf(true, "[FAIL] Codex CLI: x" + newline + "[OK] tunnel: up"), ConnectionLampState::ok);
  }
}

TEST(ReportInterpretation, ReportWithoutFaultFollowsTheExitStatus) {
  for (const char* report :
       {"[OK] Mac service: running", "沒有輸出。", "命令逾時，已停止等待。",
        "[OK] Mac service: running\n命令逾時，已停止等待。", "No such file or directory", ""}) {
    EXPECT_EQ(lampOf(true, report), ConnectionLampState::ok) << report;
    EXPECT_EQ(lampOf(false, report), ConnectionLampState::warning) << report;
  }
}

TEST(ReportInterpretation, FaultAtTheEndOfALongReportIsFound) {
  std::string report;
  while (report.size() < 1U << 20) report += "[OK] item: running（all is well）\n[FAIL] Codex CLI: old\n";
  EXPECT_EQ(lampOf(true, report), ConnectionLampState::ok);
  EXPECT_EQ(lampOf(true, report + "[FAIL] tunnel: down"), ConnectionLampState::error);
}

TEST(DisplayForm, ReplacesEveryMarkerByADotAndChangesNothingElse) {
  EXPECT_EQ(AppDelegate::prettifyOutput("[OK] a\n[FAIL] b"), "🟢 a\n🔴 b");
  EXPECT_EQ(AppDelegate::prettifyOutput("[OK][OK] x[FAIL]y[FAIL]"), "🟢🟢 x🔴y🔴");
  EXPECT_EQ(AppDelegate::prettifyOutput("[[OK]]"), "[🟢]");
  for (const char* text : {"", " [ok] [OK [FAIL ] OK \r\n\t沒有輸出。（x） \n", "[[O]K]", "[FAI[L]"}) {
    EXPECT_EQ(AppDelegate::prettifyOutput(text), text);
  }
}

}  // namespace
}  // namespace kestrune::testing
