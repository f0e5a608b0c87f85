#include <tuple>

#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

using Lamp = ConnectionLampState;

struct MenuRows : WithStatusItem {
  const Menu& build(const std::string& statusText = "x", Lamp lamp = Lamp::warning) {
    controller->rebuildMenu(statusText, lamp, 0);
    return machine.statusItem.menu();
  }
};

MenuItem label(int id, std::string title) {
  return {.id = id, .title = std::move(title), .enabled = false};
}
MenuItem separator(int id) {
  return {.id = id, .isSeparator = true};
}
MenuItem command(int id, std::string title, std::string action, std::string key,
                 std::optional<bool> checked = std::nullopt) {
  return {.id = id,
          .title = std::move(title),
          .action = std::move(action),
          .keyEquivalent = std::move(key),
          .checked = checked,
          .enabled = true};
}

TEST_F(MenuRows, AreTwentyNineInOrder) {
  const std::vector<MenuItem> expected{
      label(1, "Kestrune"),
      label(2, "🟡 連線狀態：正在檢查狀態…"),
      label(3, "連接模式：Kestrune 自托管"),
      label(4, "Codex：尚未檢查"),
      label(5, "Remote Control：尚未檢查"),
      label(6, "Codex App：尚未檢查"),
      label(7, "ChatGPT Remote：尚未檢查"),
      label(8, "同步專案：目前專案"),
      label(9, "同步會話：尚未取得"),
      label(10, "目前網路：未知網路"),
      label(11, "保持喚醒：已關閉"),
      separator(12),
      label(13, "連線與常駐"),
      command(14, "開機自動啟動菜單欄", "toggleLaunchAtLogin", "l", false),
      command(15, "自動維持連線", "toggleAutoConnect", "a", true),
      command(16, "保持 Mac 醒著（防止斷線）", "toggleKeepAwake", "k", true),
      command(17, "使用官方 ChatGPT 模式", "toggleConnectionMode", "m"),
      command(18, "手動停止連線", "stopConnection", "x"),
      separator(19),
      label(20, "查看與設定"),
      command(21, "查看完整診斷", "showStatus", "s"),
      command(22, "檢查 Codex 版本與 Remote Control", "showCodexRuntimeStatus", "c"),
      command(23, "打開 Codex App", "openCodexApp", "d"),
      command(24, "官方 ChatGPT 連接說明", "showChatGPTRemoteGuide", "g"),
      command(25, "打開專案資料夾", "openProjectFolder", "o"),
      command(26, "連線與 Token 設定…", "showSettings", ","),
      command(27, "重新啟動菜單欄", "restartMenuClient", "R"),
      separator(28),
      command(29, "退出 Kestrune", "quit", "q"),
  };
  EXPECT_EQ(build("正在檢查狀態…").items, expected);
  controller->rebuildMenu("正在檢查狀態…", Lamp::warning, 7);
  EXPECT_EQ(machine.statusItem.menu().items, expected) << "pendingCount changes nothing";
}

TEST_F(MenuRows, ShowTheCurrentTextsAndShortenTheThreadName) {
  const std::string longest(100, 'x');
  backendAnswers({.output = "[OK] Codex CLI:  0.46.0 \n[FAIL] Codex Remote Control: not enabled"});
  env() = "KESTRUNE_MAC_SERVICE_TOKEN=t";
  machine.localService.answer = R"({"projects":[{"selected":true,"title":" my_project & <co> )" + longest +
                                R"(","thread_name":"  )" + longest + R"("}]})";
  machine.userDefaults.setBool("keepAwakeEnabled", false);
  controller->startMonitoringNetwork();
  Menu expected = build();
  machine.pathMonitor.report({.satisfied = true, .usesWiFi = true});
  machine.loop.advance(Seconds{5});
  expected.items[3] = label(4, "Codex：OK 0.46.0");
  expected.items[4] = label(5, "Remote Control：需檢查 not enabled");
  expected.items[7] = label(8, "同步專案： my_project & <co> " + longest);
  expected.items[8] = label(9, "同步會話：" + longest.substr(0, 31) + "...");
  expected.items[9] = label(10, "目前網路：Wi-Fi 已連線");
  EXPECT_EQ(build(), expected);
}

TEST_F(MenuRows, ConnectionCommandDependsOnReconnectAndAutoConnect) {
  const MenuItem reconnecting = label(18, "正在重新檢查並恢復連線…");
  const MenuItem stop = command(18, "手動停止連線", "stopConnection", "x");
  const MenuItem check = command(18, "立即重新檢查連線", "refreshNow", "r");
  Menu expected = build();
  for (const auto& [reconnects, autoConnect, shown] : {std::tuple{true, true, reconnecting},
                                                       {true, false, reconnecting},
                                                       {false, true, stop},
                                                       {false, false, check}}) {
    state.reconnectInProgress = reconnects;
    setAutoConnect(autoConnect);
    expected.items[14] = command(15, "自動維持連線", "toggleAutoConnect", "a", autoConnect);
    expected.items[17] = shown;
    EXPECT_EQ(build(), expected);
  }
}

struct Button : ControllerTest {
  Button() {
    machine.mainBundle.resources["codex-menubar.png"] = "/logo.png";
    machine.images.files["/logo.png"] = makeTestImage(44, 200, 100, 50);
  }
  const StatusButton& button() const { return machine.statusItem.button(); }
};

TEST_F(Button, DrawingWithoutAStatusItemAborts) {
  ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_DEATH(controller->rebuildMenu("x", Lamp::ok, 0),
               "fatal error: the menu is built before the status item exists");
  EXPECT_DEATH(controller->updateButton(Lamp::ok, "Kestrune"),
               "fatal error: the button is updated before the status item exists");
}

TEST_F(Button, ItemWithoutAButtonIsLeftAlone) {
  machine.statusItem.buttonExists = false;
  controller->configureStatusItem();
  controller->updateButton(Lamp::ok, "Kestrune");
  EXPECT_TRUE(machine.statusItem.buttons.empty());
  EXPECT_TRUE(machine.images.asked.empty());
  EXPECT_EQ(machine.statusItem.menus.size(), 1U);
}

TEST_F(Button, ShowsTheLogoAndAToolTip) {
  machine.localService.answer = R"({"projects":[{"selected":true,"title":"my_project & <co>"}]})";
  env() = "KESTRUNE_MAC_SERVICE_TOKEN=t";
  makeStatusItem();
  refresh();
  const auto menus = machine.statusItem.menus.size();
  const Bitmap colour = machine.images.files["/logo.png"]->bitmaps[0];
  const Bitmap grey = makeTestImage(44, 100, 100, 100)->bitmaps[0];
  for (const auto& [lamp, toolTip, shown] :
       {std::tuple{Lamp::ok, "Kestrune · 已連線 · my_project & <co>", colour},
        {Lamp::warning, "Kestrune · 檢查中 · my_project & <co>", grey},
        {Lamp::error, "Kestrune · 異常 · my_project & <co>", grey}}) {
    controller->updateButton(lamp, "Kestrune");
    EXPECT_EQ(button().toolTip, toolTip);
    EXPECT_EQ(button().accessibilityLabel, toolTip);
    EXPECT_EQ(button().title, "");
    EXPECT_EQ(button().imagePosition, ImagePosition::imageOnly);
    ASSERT_NE(button().image, nullptr);
    EXPECT_EQ(*button().image, (Image{.width = 22, .height = 22, .isTemplate = false, .bitmaps = {shown}}));
  }
  EXPECT_EQ(machine.statusItem.menus.size(), menus);
}

using Asked = std::vector<std::string>;

struct Logo : ControllerTest {
  void bundleHasPng() { addFile("codex-menubar.png", "/png", makeTestImage(44, 1, 2, 3)); }
  void desktopKnowsIcon() { machine.images.named["KestruneMacClient"] = makeTestImage(128, 4, 5, 6); }
  void bundleHasIcns() { addFile("KestruneMacClient.icns", "/icns", makeTestImage(512, 7, 8, 9)); }

  void addFile(const std::string& resource, const std::string& path, const ImageRef& image) {
    machine.mainBundle.resources[resource] = path;
    machine.images.files[path] = image;
  }

  /// Returns the image paths and names that the controller has requested since the last `newlyAsked`.
  Asked newlyAsked() { return std::exchange(machine.images.asked, {}); }

  static void expectMenuBarSize(const ImageRef& image) {
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->width, 22);
    EXPECT_EQ(image->height, 22);
    EXPECT_FALSE(image->isTemplate);
  }
};

TEST_F(Logo, UsesTheFirstReadableCandidate) {
  bundleHasPng();
  desktopKnowsIcon();
  bundleHasIcns();
  const ImageRef png = controller->baseMenuBarLogo();
  expectMenuBarSize(png);
  EXPECT_EQ(png->bitmaps, machine.images.files["/png"]->bitmaps);
  EXPECT_NE(png, machine.images.read.at(0)) << "a copy";
  EXPECT_EQ(newlyAsked(), Asked{"/png"});

  machine.images.files.erase("/png");
  const ImageRef named = controller->baseMenuBarLogo();
  expectMenuBarSize(named);
  EXPECT_EQ(named, machine.images.named["KestruneMacClient"]);
  EXPECT_EQ(newlyAsked(), (Asked{"/png", "KestruneMacClient"}));

  machine.images.named.clear();
  const ImageRef icns = controller->baseMenuBarLogo();
  expectMenuBarSize(icns);
  EXPECT_EQ(icns->bitmaps, machine.images.files["/icns"]->bitmaps);
  EXPECT_EQ(newlyAsked(), (Asked{"/png", "KestruneMacClient", "/icns"}));

  machine.images.files.clear();
  EXPECT_EQ(controller->baseMenuBarLogo(), nullptr);
  machine.mainBundle.resources.clear();
  newlyAsked();
  EXPECT_EQ(controller->baseMenuBarLogo(), nullptr);
  EXPECT_EQ(newlyAsked(), Asked{"KestruneMacClient"});
}

TEST_F(Logo, GreyCopyHasNoSaturation) {
  const ImageRef original = makeTestImage(44, 10, 20, 30);
  const Image before = *original;
  const ImageRef grey = controller->makeGrayscaleImage(*original);
  expectMenuBarSize(grey);
  EXPECT_EQ(grey->bitmaps, makeTestImage(44, 20, 20, 20)->bitmaps);
  EXPECT_EQ(machine.images.filtered,
            (std::vector<ColorControls>{{.saturation = 0.0, .brightness = 0.0, .contrast = 1.0}}));
  EXPECT_EQ(*original, before);
}

TEST_F(Logo, IsCachedInColourAndInGrey) {
  bundleHasPng();
  const ImageRef grey = controller->loadMenuBarLogo(Lamp::warning);
  expectMenuBarSize(grey);
  EXPECT_EQ(grey->bitmaps, makeTestImage(44, 2, 2, 2)->bitmaps);
  const ImageRef colour = controller->loadMenuBarLogo(Lamp::ok);
  EXPECT_NE(colour, grey);
  EXPECT_EQ(newlyAsked(), (Asked{"/png", "/png"}));
  EXPECT_EQ(controller->loadMenuBarLogo(Lamp::error), grey);
  EXPECT_EQ(controller->loadMenuBarLogo(Lamp::warning), grey);
  EXPECT_EQ(controller->loadMenuBarLogo(Lamp::ok), colour);
  EXPECT_EQ(newlyAsked(), Asked{});
  EXPECT_EQ(machine.images.filtered.size(), 1U);
  makeStatusItem();
  EXPECT_EQ(machine.statusItem.button().image, grey);
}

TEST_F(Logo, MissingIsLookedUpAgain) {
  makeStatusItem();
  const StatusButton& button = machine.statusItem.button();
  EXPECT_EQ(button.image, nullptr);
  EXPECT_EQ(button.title, "");
  EXPECT_EQ(button.imagePosition, ImagePosition::imageOnly);
  EXPECT_EQ(button.toolTip, "Kestrune · 檢查中 · 目前專案");
  EXPECT_EQ(button.accessibilityLabel, button.toolTip);
  EXPECT_EQ(controller->loadMenuBarLogo(Lamp::ok), nullptr);
  bundleHasPng();
  expectMenuBarSize(controller->loadMenuBarLogo(Lamp::ok));
  expectMenuBarSize(controller->loadMenuBarLogo(Lamp::warning));
}

TEST_F(Logo, FailedConversionToGreyIsRetried) {
  bundleHasPng();
  machine.images.filterFails = true;
  EXPECT_EQ(controller->makeGrayscaleImage(*makeTestImage(44, 10, 20, 30)), nullptr);
  for (const Lamp lamp : {Lamp::warning, Lamp::error}) {
    const ImageRef logo = controller->loadMenuBarLogo(lamp);
    expectMenuBarSize(logo);
    EXPECT_EQ(logo->bitmaps, machine.images.files["/png"]->bitmaps) << "in colour";
    EXPECT_EQ(newlyAsked(), (Asked{"/png", "/png"}));
  }
  machine.images.filterFails = false;
  const ImageRef grey = controller->loadMenuBarLogo(Lamp::error);
  EXPECT_EQ(grey->bitmaps, makeTestImage(44, 2, 2, 2)->bitmaps);
  EXPECT_EQ(controller->loadMenuBarLogo(Lamp::warning), grey);
  EXPECT_EQ(machine.images.filtered.size(), 4U);
}

}  // namespace
}  // namespace kestrune::testing
