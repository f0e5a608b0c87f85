#include <gtest/gtest.h>

#include "KestruneMenuClient/AppDelegate.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/TerminalRig.h"

namespace kestrune::testing {
namespace {

TEST(TerminalController, ShowsAllRowsOfTheMenuAndPerformsThem) {
  EventLoop loop;
  TerminalRig rig(loop, TerminalRig::Line::pipes);
  FakePlatform machine;
  Platform platform = platformWith(machine, {.statusBar = rig.face.get(), .alerts = rig.face.get()});
  const auto controller = std::make_shared<AppDelegate>(platform);
  controller->applicationDidFinishLaunching();
  rig.settle();
  EXPECT_EQ(rig.screen.count("Kestrune · 檢查中 · 目前專案"), 1u);
  for (const char* const row :
       {" 1      Kestrune\n", " 2      🟡 連線狀態：正在檢查狀態…\n",
        " 8      同步專案：目前專案\n", "14  l ✗ 開機自動啟動菜單欄\n", "15  a ✓ 自動維持連線\n",
        "18  x   手動停止連線\n", "26  ,   連線與 Token 設定…\n", "27  R   重新啟動菜單欄\n",
        "29  q   退出 Kestrune\n"}) {
    EXPECT_EQ(rig.screen.count(row), 1u) << row;
  }
  EXPECT_EQ(rig.screen.count("\n29"), 1u);
  EXPECT_EQ(rig.screen.count("\n30"), 0u);

  rig.type("Q\n");
  EXPECT_TRUE(rig.screen.shows("沒有這一列：Q"));
  EXPECT_FALSE(machine.loop.isTerminated());
  rig.type("q\n");
  EXPECT_TRUE(comesTrue(loop, [&machine] { return machine.loop.isTerminated(); }));
}

}  // namespace
}  // namespace kestrune::testing
