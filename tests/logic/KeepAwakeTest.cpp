#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct KeepAwake : ControllerTest {
  void prefer(bool autoConnect, bool keepAwake) {
    setAutoConnect(autoConnect);
    machine.userDefaults.setBool("keepAwakeEnabled", keepAwake);
  }
  bool isReleased() const {
    return !state.sleepAssertionActive && state.displaySleepAssertionID == 0 &&
           state.systemSleepAssertionID == 0 && machine.powerAssertions.held.empty();
  }
};

TEST_F(KeepAwake, TakesTheDisplayAssertionAndThenTheSystemOne) {
  controller->ensureSleepAssertion();
  EXPECT_EQ(newCalls(), (CallLog{"create display assertion", "create system assertion"}));
  EXPECT_EQ(machine.powerAssertions.names,
            std::vector<std::string>(2, "Kestrune keeps Mac awake for the mobile bridge"));
  EXPECT_EQ(machine.powerAssertions.levels, (std::vector<int>{255, 255}));
}

TEST_F(KeepAwake, KeepsTheIdentifierOfEach) {
  controller->ensureSleepAssertion();
  EXPECT_TRUE(state.sleepAssertionActive);
  const std::map<std::uint32_t, PowerAssertionType> expected{
      {state.displaySleepAssertionID, PowerAssertionType::noDisplaySleep},
      {state.systemSleepAssertionID, PowerAssertionType::preventUserIdleSystemSleep}};
  EXPECT_EQ(machine.powerAssertions.held, expected);
}

TEST_F(KeepAwake, TakesThemOnce) {
  controller->ensureSleepAssertion();
  newCalls();
  controller->ensureSleepAssertion();
  EXPECT_EQ(newCalls(), CallLog{});
  EXPECT_EQ(machine.powerAssertions.held.size(), 2U);
}

TEST_F(KeepAwake, FailureOfTheFirstLeavesEverythingAsItWas) {
  machine.powerAssertions.displayFails = true;
  controller->ensureSleepAssertion();
  EXPECT_EQ(newCalls(), CallLog{"create display assertion"});
  EXPECT_TRUE(isReleased());
}

TEST_F(KeepAwake, FailureOfTheSecondGivesTheFirstBack) {
  machine.powerAssertions.systemFails = true;
  controller->ensureSleepAssertion();
  EXPECT_EQ(newCalls(),
            (CallLog{"create display assertion", "create system assertion", "release display assertion"}));
  EXPECT_TRUE(isReleased());
}

TEST_F(KeepAwake, FailureIsSilentAndTheNextSyncTriesAgain) {
  machine.powerAssertions.systemFails = true;
  controller->syncSleepAssertionWithSettings();
  machine.loop.settle();
  EXPECT_TRUE(machine.alerts.shown.empty());
  EXPECT_TRUE(machine.notifications.posted.empty());
  machine.powerAssertions.systemFails = false;
  controller->syncSleepAssertionWithSettings();
  EXPECT_TRUE(state.sleepAssertionActive);
  EXPECT_EQ(machine.powerAssertions.held.size(), 2U);
}

TEST_F(KeepAwake, ReleasesTheDisplayAssertionAndThenTheSystemOne) {
  controller->ensureSleepAssertion();
  newCalls();
  controller->releaseSleepAssertion();
  EXPECT_EQ(newCalls(), (CallLog{"release display assertion", "release system assertion"}));
  EXPECT_TRUE(isReleased());
}

TEST_F(KeepAwake, ReleasesNothingWhenNothingIsHeld) {
  controller->releaseSleepAssertion();
  EXPECT_EQ(newCalls(), CallLog{});
  controller->ensureSleepAssertion();
  controller->releaseSleepAssertion();
  newCalls();
  controller->releaseSleepAssertion();
  EXPECT_EQ(newCalls(), CallLog{});
}

TEST_F(KeepAwake, TakesNewAssertionsAfterARelease) {
  controller->ensureSleepAssertion();
  controller->releaseSleepAssertion();
  controller->ensureSleepAssertion();
  EXPECT_TRUE(state.sleepAssertionActive);
  EXPECT_EQ(machine.powerAssertions.held.count(state.displaySleepAssertionID), 1U);
  EXPECT_EQ(machine.powerAssertions.held.count(state.systemSleepAssertionID), 1U);
}

TEST_F(KeepAwake, TakesBothAnewWhenEitherWasLost) {
  for (const std::uint32_t& lost :
       {std::ref(state.displaySleepAssertionID), std::ref(state.systemSleepAssertionID)}) {
    controller->ensureSleepAssertion();
    machine.powerAssertions.lost.insert(lost);
    newCalls();
    controller->ensureSleepAssertion();
    EXPECT_EQ(newCalls(), (CallLog{"release display assertion", "release system assertion",
                                   "create display assertion", "create system assertion"}));
    EXPECT_TRUE(state.sleepAssertionActive);
  }
}

TEST_F(KeepAwake, RowFollowsALossAndTheReturnOfTheServiceWithTheNextTick) {
  startUp();
  machine.loop.advance(Seconds{1});
  ASSERT_EQ(machine.statusBar.row(11).title, "保持喚醒：已開啟");
  machine.powerAssertions.lost.insert(state.systemSleepAssertionID);
  machine.powerAssertions.systemFails = true;
  for (int tick = 0; tick < 3; ++tick) {
    machine.loop.advance(Seconds{20});
    EXPECT_EQ(machine.statusBar.row(11).title, "保持喚醒：已關閉");
    EXPECT_EQ(machine.statusBar.row(16).checked, true);
    EXPECT_TRUE(isReleased());
  }
  machine.powerAssertions.systemFails = false;
  machine.loop.advance(Seconds{20});
  EXPECT_EQ(machine.statusBar.row(11).title, "保持喚醒：已開啟");
  EXPECT_EQ(machine.powerAssertions.held.size(), 2U);
}

TEST_F(KeepAwake, IsHeldOnlyWhileBothPreferencesAreOn) {
  for (const bool heldBefore : {true, false}) {
    for (const bool autoConnect : {true, false}) {
      for (const bool keepAwake : {true, false}) {
        controller->releaseSleepAssertion();
        if (heldBefore) controller->ensureSleepAssertion();
        prefer(autoConnect, keepAwake);
        controller->syncSleepAssertionWithSettings();
        EXPECT_EQ(state.sleepAssertionActive, autoConnect && keepAwake);
        EXPECT_EQ(machine.powerAssertions.held.size(), autoConnect && keepAwake ? 2U : 0U);
      }
    }
  }
}

TEST_F(KeepAwake, PreferencesThatWereNeverWrittenAskForIt) {
  controller->syncSleepAssertionWithSettings();
  EXPECT_TRUE(state.sleepAssertionActive);
}

TEST_F(KeepAwake, ItsPreferenceIsReadAfterAutoConnectAndOnlyWhenThatIsOn) {
  prefer(true, true);
  controller->syncSleepAssertionWithSettings();
  EXPECT_EQ(machine.userDefaults.asked, (std::vector<std::string>{"autoConnectEnabled", "keepAwakeEnabled"}));
  machine.userDefaults.asked.clear();
  prefer(false, true);
  controller->syncSleepAssertionWithSettings();
  EXPECT_EQ(machine.userDefaults.asked, std::vector<std::string>{"autoConnectEnabled"});
}

struct KeepAwakeToggle : KeepAwake {
  KeepAwakeToggle() { makeStatusItem(); }

  const Alert onWindow = informationWindow(
      "已開啟保持喚醒",
      "自動連線開啟期間，Kestrune 會請求 macOS 防止閒置睡眠與螢幕睡眠，讓手機端更容易保持連線。");
  const Alert offWindow =
      informationWindow("已關閉保持喚醒", "已釋放防睡眠請求；Mac 會回到系統原本的睡眠策略。");
};

TEST_F(KeepAwakeToggle, SwitchedOnTakesTheAssertionsThenShowsMenuButtonAndWindow) {
  prefer(true, false);
  choose("toggleKeepAwake");
  EXPECT_EQ(newCalls(), (CallLog{"create display assertion", "create system assertion",
                                 "setMenu 🟡 連線狀態：保持喚醒已開啟",
                                 "setButton Kestrune · 檢查中 · 目前專案", "present alert",
                                 "show alert 已開啟保持喚醒"}));
  EXPECT_TRUE(isStored("keepAwakeEnabled", true));
  EXPECT_EQ(machine.statusBar.row(11).title, "保持喚醒：已開啟");
  EXPECT_EQ(machine.statusBar.row(16).checked, true);
  EXPECT_EQ(machine.alerts.shown, std::vector{onWindow});
}

TEST_F(KeepAwakeToggle, SwitchedOffReleasesTheAssertionsThenShowsMenuButtonAndWindow) {
  controller->ensureSleepAssertion();
  newCalls();
  choose("toggleKeepAwake");
  EXPECT_EQ(newCalls(), (CallLog{"release display assertion", "release system assertion",
                                 "setMenu 🟡 連線狀態：保持喚醒已關閉",
                                 "setButton Kestrune · 檢查中 · 目前專案", "present alert",
                                 "show alert 已關閉保持喚醒"}));
  EXPECT_TRUE(isStored("keepAwakeEnabled", false));
  EXPECT_EQ(machine.statusBar.row(11).title, "保持喚醒：已關閉");
  EXPECT_EQ(machine.statusBar.row(16).checked, false);
  EXPECT_EQ(machine.alerts.shown, std::vector{offWindow});
}

TEST_F(KeepAwakeToggle, SwitchedOnWithAutoConnectOffTakesNothingAndShowsTheErrorLamp) {
  prefer(false, false);
  choose("toggleKeepAwake");
  EXPECT_EQ(newCalls(), (CallLog{"setMenu 🔴 連線狀態：保持喚醒已開啟", "setButton Kestrune · 異常 · 目前專案",
                                 "present alert", "show alert 已開啟保持喚醒"}));
  EXPECT_TRUE(isStored("keepAwakeEnabled", true));
  EXPECT_EQ(machine.statusBar.row(11).title, "保持喚醒：已關閉");
  EXPECT_EQ(machine.alerts.shown, std::vector{onWindow});
}

TEST_F(KeepAwakeToggle, SwitchedOffWithAutoConnectOffShowsTheErrorLamp) {
  prefer(false, true);
  choose("toggleKeepAwake");
  EXPECT_EQ(newCalls(), (CallLog{"setMenu 🔴 連線狀態：保持喚醒已關閉", "setButton Kestrune · 異常 · 目前專案",
                                 "present alert", "show alert 已關閉保持喚醒"}));
  EXPECT_EQ(machine.alerts.shown, std::vector{offWindow});
}

TEST_F(KeepAwakeToggle, SwitchedOnWithAutoConnectOffReleasesWhatIsStillHeld) {
  prefer(false, false);
  controller->ensureSleepAssertion();
  choose("toggleKeepAwake");
  EXPECT_TRUE(isReleased());
}

TEST_F(KeepAwakeToggle, SwitchedOnSaysSoAlsoWhenNothingCanBeTaken) {
  prefer(true, false);
  machine.powerAssertions.systemFails = true;
  choose("toggleKeepAwake");
  EXPECT_TRUE(isStored("keepAwakeEnabled", true));
  EXPECT_TRUE(isReleased());
  EXPECT_EQ(statusRow(), "🟡 連線狀態：保持喚醒已開啟");
  EXPECT_EQ(machine.statusBar.row(11).title, "保持喚醒：已關閉");
  EXPECT_EQ(machine.alerts.shown, std::vector{onWindow});
}

TEST_F(KeepAwakeToggle, GoesThereAndBack) {
  choose("toggleKeepAwake");
  EXPECT_TRUE(isStored("keepAwakeEnabled", false));
  choose("toggleKeepAwake");
  EXPECT_TRUE(isStored("keepAwakeEnabled", true));
  machine.alerts.answer(0);
  machine.loop.runMain();
  EXPECT_EQ(machine.alerts.shown, (std::vector{offWindow, onWindow}));
  EXPECT_EQ(machine.powerAssertions.held.size(), 2U);
}

TEST_F(KeepAwakeToggle, RunsNoCommandAndTouchesNeitherFlagsNorAutoConnect) {
  state.reconnectInProgress = true;
  state.statusRefreshInProgress = true;
  choose("toggleKeepAwake");
  EXPECT_TRUE(machine.processes.launches.empty());
  EXPECT_TRUE(state.reconnectInProgress);
  EXPECT_TRUE(state.statusRefreshInProgress);
  EXPECT_EQ(machine.userDefaults.values.count("autoConnectEnabled"), 0U);
  EXPECT_EQ(machine.statusBar.row(18).title, "正在重新檢查並恢復連線…");
}

}  // namespace
}  // namespace kestrune::testing
