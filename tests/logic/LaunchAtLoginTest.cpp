#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

constexpr auto folder = "/home/u/Library/LaunchAgents";
constexpr auto currentFile = "/home/u/Library/LaunchAgents/com.dovrel.kestrune.menuclient.plist";
constexpr auto legacyFile = "/home/u/Library/LaunchAgents/com.dovrel.halvask.menuclient.plist";

const Result<std::string> switchedOff{"已關閉開機自動啟動；目前這個菜單欄應用會繼續執行，直到你手動退出。"};
const Result<std::string> switchedOn{"已保存開機自動啟動設定，會在下次登入或重開機後生效。"};

/// Returns the property list (the launch agent's file) that starts `program` at login.
std::string documentFor(const std::string& program) {
  return R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
  <key>Label</key>
  <string>com.dovrel.kestrune.menuclient</string>
  <key>ProgramArguments</key>
  <array>
    <string>)" +
         program + R"(</string>
  </array>
  <key>RunAtLoad</key>
  <true/>
  <key>KeepAlive</key>
  <false/>
</dict>
</plist>)";
}

struct LaunchAtLogin : ControllerTest {
  std::map<std::string, std::string>& files = machine.fileManager.files;

  const CallLog switchingOn{std::string("create folder ") + folder, std::string("remove ") + legacyFile,
                            std::string("write ") + currentFile};

  void arrange(bool current, bool legacy) {
    files.clear();
    if (current) files[currentFile] = "current";
    if (legacy) files[legacyFile] = "legacy";
  }
};

TEST_F(LaunchAtLogin, IsEnabledWhenEitherFileExists) {
  for (const bool current : {true, false}) {
    for (const bool legacy : {true, false}) {
      arrange(current, legacy);
      EXPECT_EQ(controller->isLaunchAtLoginEnabled(), current || legacy);
    }
  }
  machine.fileManager.unreadable.insert(currentFile);
  EXPECT_TRUE(controller->isLaunchAtLoginEnabled());
  EXPECT_TRUE(machine.fileManager.asked.empty());
}

TEST_F(LaunchAtLogin, WritesOrRemovesTheFilesInOrder) {
  for (const bool current : {true, false}) {
    for (const bool legacy : {true, false}) {
      arrange(current, legacy);
      EXPECT_EQ(controller->setLaunchAtLoginEnabled(true), switchedOn);
      EXPECT_EQ(newCalls(), switchingOn);
      EXPECT_EQ(files, (std::map<std::string, std::string>{
                           {currentFile, documentFor("/opt/kestrune/KestruneMenuClient")}}));
      arrange(current, legacy);
      EXPECT_EQ(controller->setLaunchAtLoginEnabled(false), switchedOff);
      EXPECT_EQ(newCalls(),
                (CallLog{std::string("create folder ") + folder, std::string("remove ") + currentFile,
                         std::string("remove ") + legacyFile}));
      EXPECT_TRUE(files.empty());
    }
  }
}

TEST_F(LaunchAtLogin, DocumentNamesTheProgramUnescaped) {
  machine.mainBundle.executable = "/home/u/a <b> & \"c\" 'd' 專案/KestruneMenuClient";
  controller->setLaunchAtLoginEnabled(true);
  EXPECT_EQ(files.at(currentFile), documentFor("/home/u/a <b> & \"c\" 'd' 專案/KestruneMenuClient"));
}

TEST_F(LaunchAtLogin, FailsWithoutAFolder) {
  machine.fileManager.folderError = "Permission denied";
  for (const bool enabled : {true, false}) {
    arrange(true, true);
    EXPECT_EQ(controller->setLaunchAtLoginEnabled(enabled), Failure{"Permission denied"});
    EXPECT_EQ(newCalls(), CallLog{std::string("create folder ") + folder});
    EXPECT_EQ(files.size(), 2U);
  }
}

TEST_F(LaunchAtLogin, FailedWriteLeavesTheLegacyFileRemoved) {
  machine.fileManager.writeError = "No space left on device";
  arrange(true, true);
  EXPECT_EQ(controller->setLaunchAtLoginEnabled(true), Failure{"No space left on device"});
  EXPECT_EQ(files, (std::map<std::string, std::string>{{currentFile, "current"}}));
}

/// Fake launch agents of a machine where nothing starts agents at login (`areRead` is false). A test sets the
/// results of `isRegistered` and `document`. `repairs` has the arguments of each call of `repair`.
struct OddAgents final : LaunchAgents {
  bool areRead() const override { return false; }
  std::string path(const std::string& label) const override { return "/agents/" + label; }
  bool isRegistered(const std::string&) const override { return registered; }
  std::optional<std::string> document(const std::string&, const std::string&,
                                      const std::string&) const override {
    return text;
  }
  void repair(const std::string& label, const std::string& repoPath) override {
    repairs.push_back(label + " " + repoPath);
  }

  bool registered = false;
  std::optional<std::string> text;
  std::vector<std::string> repairs;
};

TEST_F(LaunchAtLogin, StartRepairsTheCurrentAgentOnce) {
  setAutoConnect(false);
  OddAgents agents;
  Platform platform = platformWith(machine, {.launchAgents = &agents});
  std::make_shared<AppDelegate>(platform)->applicationDidFinishLaunching();
  EXPECT_EQ(agents.repairs, std::vector<std::string>{"com.dovrel.kestrune.menuclient /home/u/backend"});
}

TEST_F(LaunchAtLogin, NotifiesWhenNoDesktopReadsTheAgent) {
  setAutoConnect(false);
  OddAgents agents;
  Platform platform = platformWith(machine, {.launchAgents = &agents});
  const auto alone = std::make_shared<AppDelegate>(platform);
  alone->configureStatusItem();
  alone->performAction("toggleLaunchAtLogin");  // fails: there is no document
  EXPECT_EQ(machine.notifications.posted.size(), 0U);
  agents.text = "agent";
  alone->performAction("toggleLaunchAtLogin");
  EXPECT_EQ(files["/agents/com.dovrel.kestrune.menuclient"], "agent");
  ASSERT_EQ(machine.notifications.posted.size(), 1U);
  EXPECT_EQ(machine.notifications.posted[0].title, "Kestrune 不會在登入時啟動");
  EXPECT_EQ(machine.notifications.posted[0].body,
            "這台電腦沒有安裝桌面環境，登入時沒有程式會讀取這個自動啟動項目。");
  agents.registered = true;
  alone->performAction("toggleLaunchAtLogin");
  EXPECT_EQ(machine.notifications.posted.size(), 1U);
  EXPECT_NE(alone->describeBackend().find("which nothing reads: there is no desktop\n"), std::string::npos);
}

TEST_F(LaunchAtLogin, RefusesAPathThatTheFormatCannotHold) {
  OddAgents agents;
  Platform platform = platformWith(machine, {.launchAgents = &agents});
  const auto refused = std::make_shared<AppDelegate>(platform);
  newCalls();
  EXPECT_EQ(
      refused->setLaunchAtLoginEnabled(true),
      Failure{"程式或後端的路徑含有自動啟動項目無法表示的字元（例如引號、反斜線、$、`、%、=），所以沒有開啟。"
              "請移到名稱簡單的資料夾，再試一次。"});
  EXPECT_EQ(newCalls(), CallLog{"create folder /agents"});
}

TEST_F(LaunchAtLogin, FailedRemovalIsIgnored) {
  machine.fileManager.removeError = "Operation not permitted";
  arrange(true, true);
  EXPECT_EQ(controller->setLaunchAtLoginEnabled(false), switchedOff);
  EXPECT_TRUE(controller->isLaunchAtLoginEnabled());
  EXPECT_EQ(controller->setLaunchAtLoginEnabled(true), switchedOn);
  EXPECT_EQ(files.at(currentFile), documentFor("/opt/kestrune/KestruneMenuClient"));
}

struct LaunchAtLoginToggle : LaunchAtLogin {
  LaunchAtLoginToggle() { makeStatusItem(); }

  /// Chooses the menu row "toggleLaunchAtLogin". Then closes the window that has opened, and returns it.
  Alert toggle() {
    choose("toggleLaunchAtLogin");
    return closeWindow();
  }
};

TEST_F(LaunchAtLoginToggle, SwitchesOnReconnectsAndShowsOneWindow) {
  choose("toggleLaunchAtLogin");
  CallLog expected = switchingOn;
  expected.insert(expected.end(), {"present alert", "create display assertion", "create system assertion",
                                   "setMenu 🟡 連線狀態：正在重新連線…",
                                   "setButton Kestrune · 檢查中 · 目前專案", "show alert 已開啟開機自動啟動",
                                   "launch /bin/bash"});
  EXPECT_EQ(newCalls(), expected);
  EXPECT_EQ(row(14).checked, true);
  EXPECT_EQ(closeWindow(), informationWindow("已開啟開機自動啟動", *switchedOn));
  machine.loop.advance(Seconds{2});
  EXPECT_EQ(statusQueries(), 1U);
  EXPECT_EQ(machine.alerts.shown.size(), 1U);
}

TEST_F(LaunchAtLoginToggle, LegacyFileAloneIsShownAsOnAndSwitchedOff) {
  arrange(false, true);
  controller->rebuildMenu("x", ConnectionLampState::ok, 0);
  EXPECT_EQ(row(14).checked, true);
  EXPECT_EQ(toggle(), informationWindow("已關閉開機自動啟動", *switchedOff));
  EXPECT_TRUE(files.empty());
  EXPECT_EQ(row(14).checked, false);
  EXPECT_EQ(reconnects(), 1U);
}

TEST_F(LaunchAtLoginToggle, WithAutoConnectOffRunsNothing) {
  setAutoConnect(false);
  choose("toggleLaunchAtLogin");
  CallLog expected = switchingOn;
  expected.insert(expected.end(),
                  {std::string("setMenu ") + disabledRow, "setButton Kestrune · 檢查中 · 未同步",
                   "present alert", "show alert 已開啟開機自動啟動"});
  EXPECT_EQ(newCalls(), expected);
  EXPECT_EQ(row(14).checked, true);
}

TEST_F(LaunchAtLoginToggle, FailureKeepsTheTitleOfTheIntention) {
  machine.fileManager.folderError = "[FAIL] Permission denied";
  EXPECT_EQ(toggle(), errorWindow("已開啟開機自動啟動", "🔴 Permission denied"));
  EXPECT_EQ(row(14).checked, false);
  arrange(true, false);
  EXPECT_EQ(toggle(), errorWindow("已關閉開機自動啟動", "🔴 Permission denied"));
  EXPECT_EQ(reconnects(), 2U);
}

TEST_F(LaunchAtLoginToggle, FailureWithoutAReasonHasADefaultText) {
  machine.fileManager.folderError = "";
  EXPECT_EQ(toggle(), errorWindow("已開啟開機自動啟動", "之後重開 Mac，Kestrune 菜單欄會自動載入。"));
  arrange(true, false);
  EXPECT_EQ(toggle(), errorWindow("已關閉開機自動啟動", "之後重開 Mac，Kestrune 菜單欄不會自動載入。"));
}

}  // namespace
}  // namespace kestrune::testing
