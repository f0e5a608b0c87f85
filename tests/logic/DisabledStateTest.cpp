#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

using DisabledState = WithStatusItem;

TEST_F(DisabledState, ReleasesAssertionsThenShowsMenuThenButtonAndNothingElse) {
  backendAnswers({.output = "[OK] Codex CLI: 1"});
  refresh();
  ASSERT_EQ(machine.powerAssertions.held.size(), 2U);
  newCalls();
  controller->presentAutoConnectDisabledState();
  machine.loop.settle();
  const CallLog drawing{std::string("setMenu ") + disabledRow, "setButton Kestrune · 檢查中 · 未同步"};
  EXPECT_EQ(newCalls(),
            (CallLog{"release display assertion", "release system assertion", drawing[0], drawing[1]}));
  EXPECT_EQ(title(4), "Codex：OK 1");
  EXPECT_EQ(title(8), "同步專案：未同步");
  EXPECT_EQ(title(9), "同步會話：尚未啟動");
  EXPECT_EQ(title(11), "保持喚醒：已關閉");
  EXPECT_TRUE(machine.userDefaults.values.empty());
  controller->presentAutoConnectDisabledState();
  EXPECT_EQ(newCalls(), drawing);
}

TEST_F(DisabledState, TouchesNeitherFlag) {
  for (const bool set : {true, false}) {
    state.statusRefreshInProgress = set;
    state.reconnectInProgress = set;
    controller->presentAutoConnectDisabledState();
    EXPECT_EQ(state.statusRefreshInProgress, set);
    EXPECT_EQ(title(18), set ? reconnectingCommand : "手動停止連線");
  }
}

}  // namespace
}  // namespace kestrune::testing
