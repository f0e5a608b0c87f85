#include "tests/logic/Characters.h"
#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

/// The detail that a report of this one line gives for "Codex CLI".
std::optional<std::string> detailOf(const std::string& report) {
  return AppDelegate::diagnosticDetail(report, "Codex CLI");
}

TEST(DiagnosticDetail, IsThatOfTheFirstLineThatCarriesTheLabel) {
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
  for (const char* line : {"[OK]Codex CLI: a",
                           "[OK]  Codex CLI: a",
                           "[OK] Codex CLI:a",
                           "[OK] Codex CLI : a",
                           "[OK] codex cli: a",
                           "[ok] Codex CLI: a",
                           "[OK] Codex CLI： a",
                           "[OK]\u00A0Codex CLI: a",
                           "x [OK] Codex CLI: a",
                           "Codex CLI: a",
                           "[OK] Codex CLIs: a",
                           "[FAIL]Codex CLI: a",
                           "[FAIL] Codex CLI:a",
                           "[WARN] Codex CLI: a",
                           "[OK] Codex\u00A0CLI: a",
                           "[OK] Codex CLI: ",
                           "",
                           "\n",
                           "沒有輸出。",
                           "[OK] Codex App: x"}) {
    EXPECT_EQ(detailOf(line), std::nullopt) << line;
  }
}

TEST(CompactDetail, LosesTheExplanationAndIsTrimmedAndCut) {
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

TEST_F(CodexSummaries, AreReadFromTheReportAndForgottenWithTheNextOne) {
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

}  // namespace
}  // namespace kestrune::testing
