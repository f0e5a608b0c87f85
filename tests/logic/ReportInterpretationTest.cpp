#include "tests/logic/Characters.h"
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

TEST(ReportInterpretation, LinesOfTheCodexRuntimeNeverAffectTheLamp) {
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

TEST(ReportInterpretation, LabelAffectsOnlyItsOwnLine) {
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

TEST(DisplayForm, ReplacesEveryMarkerByADotAndChangesNothingElse) {
  EXPECT_EQ(AppDelegate::prettifyOutput("[OK] a\n[FAIL] b"), "🟢 a\n🔴 b");
  EXPECT_EQ(AppDelegate::prettifyOutput("[OK][OK] x[FAIL]y[FAIL]"), "🟢🟢 x🔴y🔴");
  EXPECT_EQ(AppDelegate::prettifyOutput("[[OK]]"), "[🟢]");
  for (const char* text : {"", " [ok] [OK [FAIL ] OK \r\n\t沒有輸出。（x） \n", "[[O]K]", "[FAI[L]"}) {
    EXPECT_EQ(AppDelegate::prettifyOutput(text), text);
  }
}

/// Returns the detail about "Codex CLI" in a report (output of the backend's status command).
std::optional<std::string> detailOf(const std::string& report) {
  return AppDelegate::diagnosticDetail(report, "Codex CLI");
}

TEST(DiagnosticDetail, ComesFromTheFirstLineWithTheLabel) {
  const std::pair<const char*, const char*> cases[] = {
      {"[OK] Codex CLI: 0.46.0", "OK 0.46.0"},
      {"[FAIL] Codex CLI: not found", "需檢查 not found"},
      {"  \t[OK] Codex CLI:   0.46.0 \t ", "OK 0.46.0"},
      {"　\u00A0[FAIL] Codex CLI: x　", "需檢查 x"},
      {"[OK] Codex CLI: \n[FAIL] Codex CLI: x", "需檢查 x"},
      {"[OK] Codex CLI: （none）", "OK "},
      {"[FAIL] Codex CLI: （none）", "需檢查 "},
      {"[FAIL] Codex CLI: a\n[OK] Codex CLI: b", "需檢查 a"},
      {"[OK] Codex CLI: b\n[FAIL] Codex CLI: a", "OK b"},
      {"x\n\n[OK] Codex CLI:b\n[OK] Codex CLI: c\n[OK] Codex CLI: d", "OK c"},
      {"a\u2028[OK] Codex CLI: b\r\nc", "OK b"},
  };
  for (const auto& [report, detail] : cases) EXPECT_EQ(detailOf(report), detail) << report;
}

TEST(DiagnosticDetail, PrefixIsExact) {
  for (const char* line :
       {"[OK]Codex CLI: a", "[OK]  Codex CLI: a", "[OK] Codex CLI:a", "[OK] Codex CLI : a",
        "[OK] codex cli: a", "[ok] Codex CLI: a", "[OK] Codex CLI： a", "[OK]\u00A0Codex CLI: a",
        "x [OK] Codex CLI: a", "Codex CLI: a", "[OK] Codex CLIs: a", "[FAIL]Codex CLI: a",
        "[FAIL] Codex CLI:a", "[WARN] Codex CLI: a", "[OK] Codex\u00A0CLI: a", "[OK] Codex CLI: ", "",
        "沒有輸出。", "[OK] Codex App: x"}) {
    EXPECT_EQ(detailOf(line), std::nullopt) << line;
  }
}

TEST(CompactDetail, DropsTheExplanationTrimsAndShortens) {
  const std::string longest(44, 'x');
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {" \n ", ""},
      {" \t　a b\r\n", "a b"},
      {"installed（/Applications/Codex.app）", "installed"},
      {"a 　（b）c（d）", "a"},
      {"（b）c", ""},
      {"a）b(c)", "a）b(c)"},
      {"  " + longest + "  ", longest},
      {longest + "（" + longest + "）", longest},
      {longest + "y（z）", std::string(41, 'x') + "..."},
      {"0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHI", "0123456789abcdefghijklmnopqrstuvwxyzABCDE..."},
      {repeated("🇹🇼", 44), repeated("🇹🇼", 44)},
      {std::string(40, 'x') + "\x1B[31mred\x1B[0m", std::string(40, 'x') + "red"},
      {repeated("🇹🇼", 45), repeated("🇹🇼", 41) + "..."},
  };
  for (const auto& [detail, compact] : cases) {
    EXPECT_EQ(AppDelegate::compactDiagnosticDetail(detail), compact) << detail;
  }
}

struct CodexSummaries : ControllerTest {
  using Rows = std::vector<std::string>;

  Rows rowsAfter(const std::string& report) {
    controller->updateCodexRuntimeSummaries(report);
    makeStatusItem();
    return {title(4), title(5), title(6), title(7)};
  }
};

TEST_F(CodexSummaries, AreReplacedByEachReport) {
  EXPECT_EQ(rowsAfter("[FAIL] ChatGPT Remote Ready: 需登入\n"
                      "[OK] Mac service: running\n"
                      "[OK] Codex CLI: 0.46.0\n"
                      "[FAIL] Codex Remote Control: not enabled\n"
                      "  [OK] Codex App: installed（/Applications/Codex.app）  \n"),
            (Rows{"Codex：OK 0.46.0", "Remote Control：需檢查 not enabled", "Codex App：OK installed",
                  "ChatGPT Remote：需檢查 需登入"}));
  EXPECT_EQ(rowsAfter("[OK] Codex App: 3"), (Rows{"Codex：尚未檢查", "Remote Control：尚未檢查",
                                                  "Codex App：OK 3", "ChatGPT Remote：尚未檢查"}));
  EXPECT_EQ(rowsAfter("命令逾時，已停止等待。")[2], "Codex App：尚未檢查");
}

TEST(ThreadName, IsTrimmedAndCut) {
  const std::string longest(34, 'x');
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"  ", ""},
      {"  a  b  ", "a  b"},
      {"修復（第二次）", "修復（第二次）"},
      {" \n\t　" + longest + " \u2028", longest},
      {"0123456789abcdefghijklmnopqrstuvwxy", "0123456789abcdefghijklmnopqrstu..."},
      {std::string(30, 'x') + " " + std::string(9, 'y'), std::string(30, 'x') + " ..."},
      {repeated("👍🏽", 34), repeated("👍🏽", 34)},
      {std::string(30, 'x') + "\x1B[31mred", std::string(30, 'x') + "red"},
      {repeated("👍🏽", 35), repeated("👍🏽", 31) + "..."},
  };
  for (const auto& [name, shown] : cases) EXPECT_EQ(AppDelegate::compactThreadName(name), shown) << name;
}

}  // namespace
}  // namespace kestrune::testing
