#include "tests/logic/Characters.h"
#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

/// The detail that a report of this one line gives for "Codex CLI".
std::optional<std::string> detailOf(const std::string& report) {
  return AppDelegate::diagnosticDetail(report, "Codex CLI");
}

TEST(DiagnosticDetail, OfAnItemThatIsWell) {
  EXPECT_EQ(detailOf("[OK] Codex CLI: 0.46.0"), "OK 0.46.0");
}

TEST(DiagnosticDetail, OfAnItemThatNeedsChecking) {
  EXPECT_EQ(detailOf("[FAIL] Codex CLI: not found"), "需檢查 not found");
}

TEST(DiagnosticDetail, LineMayHaveWhiteSpaceAround) {
  EXPECT_EQ(detailOf("  \t[OK] Codex CLI:   0.46.0 \t "), "OK 0.46.0");
  EXPECT_EQ(detailOf("　\u00A0[FAIL] Codex CLI: x　"), "需檢查 x");
}

TEST(DiagnosticDetail, PrefixIsExact) {
  for (const char* line :
       {"[OK]Codex CLI: a", "[OK]  Codex CLI: a", "[OK] Codex CLI:a", "[OK] Codex CLI : a",
        "[OK] codex cli: a", "[ok] Codex CLI: a", "[OK] Codex CLI： a", "[OK]\u00A0Codex CLI: a",
        "x [OK] Codex CLI: a", "Codex CLI: a", "[OK] Codex CLIs: a", "[FAIL]Codex CLI: a",
        "[FAIL] Codex CLI:a", "[WARN] Codex CLI: a", "[OK] Codex\u00A0CLI: a"}) {
    EXPECT_EQ(detailOf(line), std::nullopt) << line;
  }
}

TEST(DiagnosticDetail, ItemWithoutADetailDoesNotMatch) {
  EXPECT_EQ(detailOf("[OK] Codex CLI: "), std::nullopt);
  EXPECT_EQ(detailOf("[OK] Codex CLI: \n[FAIL] Codex CLI: x"), "需檢查 x");
}

TEST(DiagnosticDetail, ItemWithOnlyAnExplanationHasAnEmptyDetail) {
  EXPECT_EQ(detailOf("[OK] Codex CLI: （none）"), "OK ");
  EXPECT_EQ(detailOf("[FAIL] Codex CLI: （none）"), "需檢查 ");
}

TEST(DiagnosticDetail, FirstLineThatMatchesDecides) {
  EXPECT_EQ(detailOf("[FAIL] Codex CLI: a\n[OK] Codex CLI: b"), "需檢查 a");
  EXPECT_EQ(detailOf("[OK] Codex CLI: b\n[FAIL] Codex CLI: a"), "OK b");
  EXPECT_EQ(detailOf("x\n\n[OK] Codex CLI:b\n[OK] Codex CLI: c\n[OK] Codex CLI: d"), "OK c");
}

TEST(DiagnosticDetail, LinesEndAtEveryNewline) {
  for (const char* newline : {"\n", "\r\n", "\r", "\v", "\f", "\u0085", "\u2028", "\u2029"}) {
    EXPECT_EQ(detailOf(std::string("a") + newline + "[OK] Codex CLI: b" + newline + "c"), "OK b");
  }
}

TEST(DiagnosticDetail, ReportWithoutTheLabelHasNone) {
  for (const char* report : {"", "\n", "沒有輸出。", "命令逾時，已停止等待。", "[OK] Codex App: x"}) {
    EXPECT_EQ(detailOf(report), std::nullopt) << report;
  }
}

TEST(DiagnosticDetail, EveryLabelIsReadByItself) {
  const std::string report =
      "[OK] Codex App: a\n[OK] ChatGPT Remote Ready: r\n[OK] Codex Remote Control: c\n[FAIL] Codex CLI: v";
  EXPECT_EQ(AppDelegate::diagnosticDetail(report, "Codex CLI"), "需檢查 v");
  EXPECT_EQ(AppDelegate::diagnosticDetail(report, "Codex Remote Control"), "OK c");
  EXPECT_EQ(AppDelegate::diagnosticDetail(report, "Codex App"), "OK a");
  EXPECT_EQ(AppDelegate::diagnosticDetail(report, "ChatGPT Remote Ready"), "OK r");
  EXPECT_EQ(AppDelegate::diagnosticDetail(report, "Codex"), std::nullopt);
}

TEST(CompactDetail, LosesTheExplanationInFullWidthParentheses) {
  EXPECT_EQ(AppDelegate::compactDiagnosticDetail("installed（/Applications/Codex.app）"), "installed");
  EXPECT_EQ(AppDelegate::compactDiagnosticDetail("a 　（b）c（d）"), "a");
  EXPECT_EQ(AppDelegate::compactDiagnosticDetail("（b）c"), "");
  EXPECT_EQ(AppDelegate::compactDiagnosticDetail("a）b(c)"), "a）b(c)");
}

TEST(CompactDetail, IsTrimmed) {
  EXPECT_EQ(AppDelegate::compactDiagnosticDetail(" \t　a b\r\n"), "a b");
  EXPECT_EQ(AppDelegate::compactDiagnosticDetail(" \n "), "");
  EXPECT_EQ(AppDelegate::compactDiagnosticDetail(""), "");
}

TEST(CompactDetail, OfFortyFourCharactersIsKeptWhole) {
  const std::string detail(44, 'x');
  EXPECT_EQ(AppDelegate::compactDiagnosticDetail(detail), detail);
  EXPECT_EQ(AppDelegate::compactDiagnosticDetail("  " + detail + "  "), detail);
}

TEST(CompactDetail, OfFortyFiveCharactersIsCut) {
  EXPECT_EQ(AppDelegate::compactDiagnosticDetail(std::string(45, 'x')), std::string(41, 'x') + "...");
}

TEST(CompactDetail, OfFiftyAsciiCharactersKeepsTheFirstFortyOne) {
  const std::string detail = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMN";
  ASSERT_EQ(detail.size(), 50U);
  EXPECT_EQ(AppDelegate::compactDiagnosticDetail(detail), "0123456789abcdefghijklmnopqrstuvwxyzABCDE...");
}

TEST(CompactDetail, CutsAfterTheExplanationIsGone) {
  const std::string detail(44, 'x');
  EXPECT_EQ(AppDelegate::compactDiagnosticDetail(detail + "（" + detail + "）"), detail);
  EXPECT_EQ(AppDelegate::compactDiagnosticDetail(detail + "y（z）"), std::string(41, 'x') + "...");
}

TEST(CompactDetail, CountsCharactersAsAReaderDoes) {
  for (const std::string_view character : singleCharacters) {
    EXPECT_EQ(AppDelegate::compactDiagnosticDetail(repeated(character, 44)), repeated(character, 44));
    EXPECT_EQ(AppDelegate::compactDiagnosticDetail(repeated(character, 45)), repeated(character, 41) + "...");
  }
}

struct CodexSummaries : ControllerTest {
  std::vector<std::string> summaries() const {
    return {state.codexVersionSummary, state.codexRemoteControlSummary, state.codexAppSummary,
            state.chatGPTRemoteSummary};
  }
  const std::vector<std::string> unchecked{"Codex：尚未檢查", "Remote Control：尚未檢查",
                                           "Codex App：尚未檢查", "ChatGPT Remote：尚未檢查"};
};

TEST_F(CodexSummaries, AreReadFromTheReport) {
  controller->updateCodexRuntimeSummaries(
      "[OK] Mac service: running\n"
      "[OK] Codex CLI: 0.46.0\n"
      "[FAIL] Codex Remote Control: not enabled\n"
      "  [OK] Codex App: installed（/Applications/Codex.app）  \n"
      "[FAIL] ChatGPT Remote Ready: 需登入\n");
  EXPECT_EQ(summaries(),
            (std::vector<std::string>{"Codex：OK 0.46.0", "Remote Control：需檢查 not enabled",
                                      "Codex App：OK installed", "ChatGPT Remote：需檢查 需登入"}));
}

TEST_F(CodexSummaries, EarlierLineWins) {
  controller->updateCodexRuntimeSummaries("[FAIL] Codex CLI: a\n[OK] Codex CLI: b");
  EXPECT_EQ(state.codexVersionSummary, "Codex：需檢查 a");
}

TEST_F(CodexSummaries, LabelThatDisappearsRevertsToNotChecked) {
  controller->updateCodexRuntimeSummaries(
      "[OK] Codex CLI: 1\n[OK] Codex Remote Control: 2\n[OK] Codex App: 3\n[OK] ChatGPT Remote Ready: 4");
  controller->updateCodexRuntimeSummaries("[OK] Codex App: 3");
  EXPECT_EQ(summaries(), (std::vector<std::string>{"Codex：尚未檢查", "Remote Control：尚未檢查",
                                                   "Codex App：OK 3", "ChatGPT Remote：尚未檢查"}));
}

TEST_F(CodexSummaries, TextsOfTheRunnerRevertAllFour) {
  for (const char* output : {"沒有輸出。", "命令逾時，已停止等待。", "No such file or directory", ""}) {
    for (auto* const summary : {&state.codexVersionSummary, &state.codexRemoteControlSummary,
                                &state.codexAppSummary, &state.chatGPTRemoteSummary}) {
      *summary = "old";
    }
    controller->updateCodexRuntimeSummaries(output);
    EXPECT_EQ(summaries(), unchecked) << output;
  }
}

TEST_F(CodexSummaries, FailedRuntimeItemNeedsCheckingButLeavesTheLampAlone) {
  const CommandResult result{true, "[FAIL] Codex CLI: not found"};
  controller->updateCodexRuntimeSummaries(result.output);
  EXPECT_EQ(state.codexVersionSummary, "Codex：需檢查 not found");
  EXPECT_EQ(AppDelegate::inferLampState(result), ConnectionLampState::ok);
}

TEST_F(CodexSummaries, AreFoundInALongReport) {
  std::string report;
  while (report.size() < 1U << 20) report += "[OK] item: running（all is well）\n";
  controller->updateCodexRuntimeSummaries(report + "[OK] Codex CLI: 1\n" + report +
                                          "[OK] ChatGPT Remote Ready: 2");
  EXPECT_EQ(summaries(), (std::vector<std::string>{"Codex：OK 1", "Remote Control：尚未檢查",
                                                   "Codex App：尚未檢查", "ChatGPT Remote：OK 2"}));
}

}  // namespace
}  // namespace kestrune::testing
