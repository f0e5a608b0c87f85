#include <unordered_set>

#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

using Lamp = ConnectionLampState;

TEST(Lamp, HasADotAndAWordForEachState) {
  EXPECT_EQ(menuIcon(Lamp::ok), "🟢");
  EXPECT_EQ(menuIcon(Lamp::warning), "🟡");
  EXPECT_EQ(menuIcon(Lamp::error), "🔴");
  EXPECT_EQ(menuLabel(Lamp::ok), "已連線");
  EXPECT_EQ(menuLabel(Lamp::warning), "檢查中");
  EXPECT_EQ(menuLabel(Lamp::error), "異常");
}

TEST(Lamp, StatesStandInOrderAndCanBeHashed) {
  EXPECT_LT(Lamp::ok, Lamp::warning);
  EXPECT_LT(Lamp::warning, Lamp::error);
  EXPECT_EQ(std::unordered_set<Lamp>({Lamp::ok, Lamp::warning, Lamp::error, Lamp::ok}).size(), 3U);
}

struct Button : ControllerTest {
  Button() {
    machine.mainBundle.resources["codex-menubar.png"] = "/logo.png";
    machine.images.files["/logo.png"] = makeTestImage(44, 200, 100, 50);
  }
  const StatusButton& button() const { return machine.statusBar.button(); }
};

TEST_F(Button, StatusItemIsSquareAndFirstShowsTheWarningLampThenTheMenu) {
  controller->configureStatusItem();
  EXPECT_EQ(machine.statusBar.length, -2);
  EXPECT_NE(state.statusItem, nullptr);
  EXPECT_EQ(newCalls(), (CallLog{"statusItem", "setButton Kestrune · 檢查中 · 目前專案",
                                 "setMenu 🟡 連線狀態：正在檢查狀態…"}));
}

TEST_F(Button, UpdateBeforeTheStatusItemExistsStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(controller->updateButton(Lamp::ok, "Kestrune"),
               "fatal error: the button is updated before the status item exists");
}

TEST_F(Button, ItemWithoutAButtonIsLeftAlone) {
  machine.statusBar.hasButton = false;
  controller->configureStatusItem();
  controller->updateButton(Lamp::ok, "Kestrune");
  EXPECT_TRUE(machine.statusBar.buttons.empty());
  EXPECT_TRUE(machine.images.asked.empty());
  EXPECT_EQ(machine.statusBar.menus.size(), 1U);
}

TEST_F(Button, ToolTipNamesTheProductTheLampsWordAndTheProject) {
  makeStatusItem();
  state.currentProjectTitle = "my_project & <co>";
  controller->updateButton(Lamp::ok, "Kestrune");
  EXPECT_EQ(button().toolTip, "Kestrune · 已連線 · my_project & <co>");
  controller->updateButton(Lamp::warning, "Kestrune");
  EXPECT_EQ(button().toolTip, "Kestrune · 檢查中 · my_project & <co>");
  controller->updateButton(Lamp::error, "Another");
  EXPECT_EQ(button().toolTip, "Another · 異常 · my_project & <co>");
}

TEST_F(Button, ToolTipIsTheAccessibleDescriptionToo) {
  makeStatusItem();
  for (const Lamp lamp : {Lamp::ok, Lamp::warning, Lamp::error}) {
    controller->updateButton(lamp, "Kestrune");
    ASSERT_TRUE(button().accessibilityLabel.has_value());
    EXPECT_EQ(button().accessibilityLabel, button().toolTip);
  }
}

TEST_F(Button, ToolTipShowsTheProjectOfTheTimeOfDrawing) {
  makeStatusItem();
  controller->updateButton(Lamp::ok, "Kestrune");
  const auto drawn = machine.statusBar.buttons.size();
  state.currentProjectTitle = "Another";
  machine.loop.settle();
  EXPECT_EQ(machine.statusBar.buttons.size(), drawn);
  EXPECT_EQ(button().toolTip, "Kestrune · 已連線 · 目前專案");
  controller->updateButton(Lamp::ok, "Kestrune");
  EXPECT_EQ(button().toolTip, "Kestrune · 已連線 · Another");
}

TEST_F(Button, IsAnImageAlone) {
  makeStatusItem();
  for (const Lamp lamp : {Lamp::ok, Lamp::warning, Lamp::error}) {
    controller->updateButton(lamp, "Kestrune");
    EXPECT_EQ(button().title, "");
    EXPECT_EQ(button().imagePosition, ImagePosition::imageOnly);
    ASSERT_NE(button().image, nullptr);
    EXPECT_FALSE(button().image->isTemplate);
    EXPECT_EQ(button().image->width, 22);
    EXPECT_EQ(button().image->height, 22);
  }
}

TEST_F(Button, OnlyTheConnectedStateHasColours) {
  makeStatusItem();
  controller->updateButton(Lamp::ok, "Kestrune");
  EXPECT_EQ(button().image->bitmaps, machine.images.files["/logo.png"]->bitmaps);
  controller->updateButton(Lamp::warning, "Kestrune");
  EXPECT_EQ(button().image->bitmaps, makeTestImage(44, 100, 100, 100)->bitmaps);
}

TEST_F(Button, WarningAndErrorShareTheGreyImageAndDifferInTheWord) {
  makeStatusItem();
  controller->updateButton(Lamp::warning, "Kestrune");
  const StatusButton warning = button();
  controller->updateButton(Lamp::error, "Kestrune");
  const StatusButton error = button();
  EXPECT_EQ(warning.image, error.image);
  EXPECT_EQ(warning.toolTip, "Kestrune · 檢查中 · 目前專案");
  EXPECT_EQ(error.toolTip, "Kestrune · 異常 · 目前專案");
}

TEST_F(Button, WithoutALogoShowsNeitherImageNorTextButStillItsToolTip) {
  machine.mainBundle.resources.clear();
  makeStatusItem();
  for (const Lamp lamp : {Lamp::ok, Lamp::warning, Lamp::error}) {
    controller->updateButton(lamp, "Kestrune");
    EXPECT_EQ(button().image, nullptr);
    EXPECT_EQ(button().title, "");
    EXPECT_EQ(button().imagePosition, ImagePosition::imageOnly);
    EXPECT_EQ(button().toolTip, "Kestrune · " + std::string(menuLabel(lamp)) + " · 目前專案");
  }
}

TEST_F(Button, LogoThatIsGoneClearsTheImage) {
  makeStatusItem();
  ASSERT_NE(button().image, nullptr);
  machine.mainBundle.resources.clear();
  controller->updateButton(Lamp::ok, "Kestrune");
  EXPECT_EQ(button().image, nullptr);
}

TEST_F(Button, LeavesTheMenuAlone) {
  makeStatusItem();
  controller->updateButton(Lamp::error, "Kestrune");
  EXPECT_EQ(machine.statusBar.menus.size(), 1U);
}

}  // namespace
}  // namespace kestrune::testing
