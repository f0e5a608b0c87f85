#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct KeepAwake : ControllerTest {
  void prefer(bool autoConnect, bool keepAwake) {
    setAutoConnect(autoConnect);
    machine.userDefaults.setBool("keepAwakeEnabled", keepAwake);
  }
  /// Makes `isHeld` return false for the power assertions of this type that the client holds now.
  void lose(PowerAssertionType type) {
    for (const auto& [identifier, heldType] : machine.powerAssertions.held) {
      if (heldType == type) machine.powerAssertions.lost.insert(identifier);
    }
  }
  std::size_t held() const { return machine.powerAssertions.held.size(); }

  const CallLog taken{"create display assertion", "create system assertion"};
  const CallLog released{"release display assertion", "release system assertion"};
};

TEST_F(KeepAwake, TakesBothAssertionsOnceAndReleasesThemOnce) {
  for (int time = 0; time < 2; ++time) {
    controller->ensureSleepAssertion();
    EXPECT_EQ(newCalls(), taken);
    EXPECT_EQ(held(), 2U);
    controller->ensureSleepAssertion();
    EXPECT_EQ(newCalls(), CallLog{});
    controller->releaseSleepAssertion();
    EXPECT_EQ(newCalls(), released);
    EXPECT_EQ(held(), 0U);
    controller->releaseSleepAssertion();
    EXPECT_EQ(newCalls(), CallLog{});
  }
  EXPECT_EQ(machine.powerAssertions.names,
            std::vector<std::string>(4, "Kestrune keeps Mac awake for the mobile bridge"));
  EXPECT_EQ(machine.powerAssertions.levels, std::vector<int>(4, 255));
}

TEST_F(KeepAwake, FailureReleasesBothAndIsRetriedByTheNextSync) {
  machine.powerAssertions.displayFails = true;
  controller->ensureSleepAssertion();
  EXPECT_EQ(newCalls(), CallLog{taken[0]});
  machine.powerAssertions.displayFails = false;
  machine.powerAssertions.systemFails = true;
  controller->syncSleepAssertionWithSettings();
  machine.loop.settle();
  EXPECT_EQ(newCalls(), (CallLog{taken[0], taken[1], released[0]}));
  EXPECT_EQ(held(), 0U);
  controller->releaseSleepAssertion();
  EXPECT_EQ(newCalls(), CallLog{});
  machine.powerAssertions.systemFails = false;
  controller->syncSleepAssertionWithSettings();
  EXPECT_EQ(newCalls(), taken);
}

TEST_F(KeepAwake, TakesBothAgainWhenOneWasLost) {
  for (const auto type :
       {PowerAssertionType::noDisplaySleep, PowerAssertionType::preventUserIdleSystemSleep}) {
    controller->ensureSleepAssertion();
    lose(type);
    newCalls();
    controller->ensureSleepAssertion();
    EXPECT_EQ(newCalls(), (CallLog{released[0], released[1], taken[0], taken[1]}));
  }
}

TEST_F(KeepAwake, RowShowsALossAndARecoveryAtTheNextTick) {
  startUp();
  machine.loop.advance(Seconds{1});
  ASSERT_EQ(title(11), "保持喚醒：已開啟");
  lose(PowerAssertionType::preventUserIdleSystemSleep);
  machine.powerAssertions.systemFails = true;
  for (int tick = 0; tick < 3; ++tick) {
    machine.loop.advance(Seconds{20});
    EXPECT_EQ(title(11), "保持喚醒：已關閉");
    EXPECT_EQ(row(16).checked, true);
    EXPECT_EQ(held(), 0U);
  }
  machine.powerAssertions.systemFails = false;
  machine.loop.advance(Seconds{20});
  EXPECT_EQ(title(11), "保持喚醒：已開啟");
  EXPECT_EQ(held(), 2U);
}

TEST_F(KeepAwake, IsHeldOnlyWhileBothPreferencesAreOn) {
  controller->syncSleepAssertionWithSettings();
  EXPECT_EQ(held(), 2U) << "as long as neither was ever written";
  for (const bool heldBefore : {true, false}) {
    for (const bool autoConnect : {true, false}) {
      for (const bool keepAwake : {true, false}) {
        controller->releaseSleepAssertion();
        if (heldBefore) controller->ensureSleepAssertion();
        prefer(autoConnect, keepAwake);
        controller->syncSleepAssertionWithSettings();
        EXPECT_EQ(held(), autoConnect && keepAwake ? 2U : 0U);
      }
    }
  }
}

struct KeepAwakeToggle : KeepAwake {
  KeepAwakeToggle() { makeStatusItem(); }

  /// Chooses the menu row for keep-awake. Expects `calls`, then updates of the menu and the button, then an
  /// alert.
  void toggle(const std::string& lamp, bool on, CallLog calls) {
    newCalls();
    choose("toggleKeepAwake");
    const std::string word = on ? "已開啟" : "已關閉";
    calls.insert(calls.end(),
                 {"setMenu " + lamp + " 連線狀態：保持喚醒" + word,
                  std::string("setButton Kestrune · ") + (lamp == "🟡" ? "檢查中" : "異常") + " · 目前專案",
                  "present alert", "show alert " + word + "保持喚醒"});
    EXPECT_EQ(newCalls(), calls);
    EXPECT_TRUE(isStored("keepAwakeEnabled", on));
    EXPECT_EQ(row(16).checked, on);
    EXPECT_EQ(title(11), held() == 2 ? "保持喚醒：已開啟" : "保持喚醒：已關閉");
    EXPECT_EQ(closeWindow(), on ? onWindow : offWindow);
  }

  const Alert onWindow = informationWindow(
      "已開啟保持喚醒",
      "自動連線開啟期間，Kestrune 會請求 macOS 防止閒置睡眠與螢幕睡眠，讓手機端更容易保持連線。");
  const Alert offWindow =
      informationWindow("已關閉保持喚醒", "已釋放防睡眠請求；Mac 會回到系統原本的睡眠策略。");
};

TEST_F(KeepAwakeToggle, UpdatesAssertionsMenuButtonAndWindowInOrder) {
  controller->ensureSleepAssertion();
  toggle("🟡", false, released);
  toggle("🟡", true, taken);
  EXPECT_FALSE(machine.userDefaults.values.contains("autoConnectEnabled"));
  EXPECT_TRUE(machine.processes.launches.empty());
}

TEST_F(KeepAwakeToggle, WithAutoConnectOffShowsTheErrorLamp) {
  prefer(false, false);
  controller->ensureSleepAssertion();
  toggle("🔴", true, released);
  toggle("🔴", false, CallLog{});
  toggle("🔴", true, CallLog{});
}

TEST_F(KeepAwakeToggle, ShowsItsWindowWhenNoAssertionIsGranted) {
  prefer(true, false);
  machine.powerAssertions.systemFails = true;
  toggle("🟡", true, CallLog{taken[0], taken[1], released[0]});
}

TEST_F(KeepAwakeToggle, LeavesARunningCheckAndReconnectAlone) {
  state.reconnectInProgress = true;
  state.statusRefreshInProgress = true;
  toggle("🟡", false, {});
  EXPECT_TRUE(state.statusRefreshInProgress);
  EXPECT_EQ(title(18), reconnectingCommand);
}

}  // namespace
}  // namespace kestrune::testing
