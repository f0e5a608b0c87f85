#include <tuple>

#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

using Lamp = ConnectionLampState;

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

TEST_F(Button, IsAnImageAloneWhoseToolTipNamesTheProductTheLampAndTheProject) {
  machine.localService.answer = R"({"projects":[{"selected":true,"title":"my_project & <co>"}]})";
  env() = "KESTRUNE_MAC_SERVICE_TOKEN=t";
  makeStatusItem();
  refresh();
  const auto menus = machine.statusBar.menus.size();
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
  EXPECT_EQ(machine.statusBar.menus.size(), menus);
}

TEST_F(Button, WithoutALogoShowsNeitherImageNorTextButStillItsToolTip) {
  makeStatusItem();
  ASSERT_NE(button().image, nullptr);
  machine.mainBundle.resources.clear();
  controller->updateButton(Lamp::ok, "Kestrune");
  EXPECT_EQ(button().image, nullptr);
  EXPECT_EQ(button().title, "");
  EXPECT_EQ(button().imagePosition, ImagePosition::imageOnly);
  EXPECT_EQ(button().toolTip, "Kestrune · 已連線 · 目前專案");
}

}  // namespace
}  // namespace kestrune::testing
