#include <gtest/gtest.h>

#include "adapters/pictures/PngImages.h"
#include "tests/rig/AppDelegateState.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/TrayDesk.h"

namespace kestrune::testing {
namespace {

using Texts = std::vector<std::string>;

std::string line(int id, const std::string& label) {
  return "(" + std::to_string(id) + ", {'enabled': b false, 'label': s '" + label + "'}, [])";
}

std::string command(int id, const std::string& label, const std::string& keys) {
  return "(" + std::to_string(id) + ", {'enabled': b true, 'label': s '" + label + "', 'shortcut': aas [[" +
         keys + "]]}, [])";
}

std::string toggle(int id, const std::string& label, const std::string& keys, bool on) {
  return "(" + std::to_string(id) + ", {'enabled': b true, 'label': s '" + label + "', 'shortcut': aas [[" +
         keys + "]], 'toggle-state': i " + (on ? "1" : "0") + ", 'toggle-type': s 'checkmark'}, [])";
}

std::string separator(int id) {
  return "(" + std::to_string(id) + ", {'type': s 'separator'}, [])";
}

/// The controller on a machine that is made up, but for the tray and the images.
struct TrayController : EmptyDesk {
  void SetUp() override {
    daemon.start();
    showTray();
    bus.connect();
    machine.mainBundle.resources["codex-menubar.png"] = SOURCE_FOLDER "/resources/codex-menubar.png";
    controller->applicationDidFinishLaunching();
    ASSERT_TRUE(host->hasItem());
    host->news();
  }

  void show(ConnectionLampState lamp, const std::string& status) {
    controller->rebuildMenu(status, lamp, 0);
    controller->updateButton(lamp, "Kestrune");
  }

  FakePlatform machine;
  PngImages images{{}};
  Platform platform = platformWith(machine, {.statusBar = &bar, .images = &images});
  std::shared_ptr<AppDelegate> controller = std::make_shared<AppDelegate>(platform);
  AppDelegateState state{*controller};
};

TEST_F(TrayController, ShowsAllRowsOfItsMenu) {
  EXPECT_EQ(host->rows(), (Texts{
                              line(1, "Kestrune"),
                              line(2, "🟡 連線狀態：正在檢查狀態…"),
                              line(3, "連接模式：Kestrune 自托管"),
                              line(4, "Codex：尚未檢查"),
                              line(5, "Remote Control：尚未檢查"),
                              line(6, "Codex App：尚未檢查"),
                              line(7, "ChatGPT Remote：尚未檢查"),
                              line(8, "同步專案：目前專案"),
                              line(9, "同步會話：尚未取得"),
                              line(10, "目前網路：未知網路"),
                              line(11, "保持喚醒：已關閉"),
                              separator(12),
                              line(13, "連線與常駐"),
                              toggle(14, "開機自動啟動菜單欄", "'Control', 'l'", false),
                              toggle(15, "自動維持連線", "'Control', 'a'", true),
                              toggle(16, "保持 Mac 醒著（防止斷線）", "'Control', 'k'", true),
                              command(17, "使用官方 ChatGPT 模式", "'Control', 'm'"),
                              command(18, "手動停止連線", "'Control', 'x'"),
                              separator(19),
                              line(20, "查看與設定"),
                              command(21, "查看完整診斷", "'Control', 's'"),
                              command(22, "檢查 Codex 版本與 Remote Control", "'Control', 'c'"),
                              command(23, "打開 Codex App", "'Control', 'd'"),
                              command(24, "官方 ChatGPT 連接說明", "'Control', 'g'"),
                              command(25, "打開專案資料夾", "'Control', 'o'"),
                              command(26, "連線與 Token 設定…", "'Control', 'comma'"),
                              command(27, "重新啟動菜單欄", "'Control', 'Shift', 'r'"),
                              separator(28),
                              command(29, "退出 Kestrune", "'Control', 'q'"),
                          }));
}

TEST_F(TrayController, TellsNothingWhenARefreshChangedNothing) {
  for (int time = 0; time < 5; ++time) show(ConnectionLampState::warning, "正在檢查狀態…");
  EXPECT_EQ(host->news(), Texts{});
}

TEST_F(TrayController, TellsOnlyTheRowOfTheStatusWhenOnlyThatChanged) {
  controller->rebuildMenu("服務正常", ConnectionLampState::ok, 0);
  EXPECT_EQ(host->news(),
            Texts{"ItemsPropertiesUpdated [(2, {'label': s '🟢 連線狀態：服務正常'})], []"});
}

TEST_F(TrayController, TellsTheLampOfItsButton) {
  controller->updateButton(ConnectionLampState::ok, "Kestrune");
  EXPECT_EQ(host->news(), (Texts{"NewIcon", "NewToolTip"}));
  EXPECT_EQ(host->property("ToolTip"), "(sa(iiay)ss) ('', [], 'Kestrune · 已連線 · 目前專案', '')");
  EXPECT_EQ(host->property("IconAccessibleDesc"), "s 'Kestrune · 已連線 · 目前專案'");
  const std::string coloured = host->property("IconPixmap");
  controller->updateButton(ConnectionLampState::error, "Kestrune");
  EXPECT_EQ(host->property("ToolTip"), "(sa(iiay)ss) ('', [], 'Kestrune · 異常 · 目前專案', '')");
  EXPECT_NE(host->property("IconPixmap"), coloured);
  controller->updateButton(ConnectionLampState::ok, "Kestrune");
  EXPECT_EQ(host->property("IconPixmap"), coloured);
}

TEST_F(TrayController, ChangesTheConnectionCommandInPlace) {
  state.reconnectInProgress = true;
  controller->rebuildMenu("正在檢查狀態…", ConnectionLampState::warning, 0);
  EXPECT_EQ(host->news(), Texts{"ItemsPropertiesUpdated [(18, {'enabled': b false, 'label': s "
                                "'正在重新檢查並恢復連線…'})], [(18, ['shortcut'])]"});
  state.reconnectInProgress = false;
  controller->rebuildMenu("正在檢查狀態…", ConnectionLampState::warning, 0);
  EXPECT_EQ(host->news(), Texts{"ItemsPropertiesUpdated [(18, {'enabled': b true, 'label': s '手動停止連線', "
                                "'shortcut': aas [['Control', 'x']]})], []"});
}

TEST_F(TrayController, ChangesTheSwitchAndItsCommandInPlace) {
  controller->setAutoConnectEnabled(false);
  controller->rebuildMenu("正在檢查狀態…", ConnectionLampState::warning, 0);
  EXPECT_EQ(host->news(),
            Texts{"ItemsPropertiesUpdated [(15, {'toggle-state': i 0}), (18, {'label': s '立即重新檢查連線', "
                  "'shortcut': aas [['Control', 'r']]})], []"});
}

TEST_F(TrayController, ShowsTheNameOfAProjectAsItIs) {
  state.currentProjectTitle = "my_project & <co>";
  show(ConnectionLampState::warning, "正在檢查狀態…");
  EXPECT_EQ(host->menu("GetProperty", "is", 8, "label"), "s '同步專案：my__project & <co>'");
  EXPECT_EQ(host->property("ToolTip"),
            "(sa(iiay)ss) ('', [], 'Kestrune · 檢查中 · my_project ＆ ＜co>', '')");
}

TEST_F(TrayController, PerformsAClickedRow) {
  EXPECT_EQ(host->clicked(29), "");
  EXPECT_TRUE(comesTrue(loop, [this] { return machine.loop.isTerminated(); }));
}

}  // namespace
}  // namespace kestrune::testing
