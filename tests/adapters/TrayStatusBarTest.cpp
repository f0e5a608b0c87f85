#include <gtest/gtest.h>

#include "adapters/tray/TrayStatusBar.h"
#include "tests/rig/RecordingTarget.h"
#include "tests/rig/StandInDialogs.h"
#include "tests/rig/TrayDesk.h"

namespace kestrune::testing {
namespace {

/// The item of the desktop face, and the window that belongs to it.
struct TrayStatusBarOn : EmptyDesk {
  ~TrayStatusBarOn() override {
    window.close();
    daemon.stop();
    EXPECT_TRUE(hasNoChildren(loop));
  }

  StandInDialogs dialogs{loop};
  CallLog log;
  FakeNotifications notifications{log};
  DialogProgram program{dialogs.program(), true, notifications};
  MenuWindowProcess window{loop, program};
  ActivationToken token;
  FakeMainBundle bundle;
  TrayStatusBar statusBar{bus, loop.mainQueue(), bundle, window, token};
  std::shared_ptr<RecordingTarget> target = std::make_shared<RecordingTarget>();
  Menu menu{{{.id = 1, .title = "stop", .action = "stop", .target = target}}};
};

TEST_F(TrayStatusBarOn, ATrayShowsTheMenuAsAWindowAtAClick) {
  daemon.start();
  showTray();
  bus.connect();
  item = statusBar.statusItem(squareStatusItemLength);
  ASSERT_TRUE(host->hasItem());
  item->setMenu(menu);
  settleQueue(loop);
  EXPECT_TRUE(dialogs.runs.empty());
  host->call(TrayHost::itemPath, TrayHost::itemInterface, "Activate", "ii", 0, 0);
  DialogsRun& run = dialogs.run();
  EXPECT_EQ(run.asked<dialogs::ShowMenu>(1).front().menu, menu);
  run.say(dialogs::Shown{});
  host->call(TrayHost::itemPath, TrayHost::itemInterface, "Activate", "ii", 0, 0);
  run.asked<dialogs::Raise>(1);
  run.say(dialogs::Chosen{1});
  EXPECT_TRUE(run.ends());
  EXPECT_EQ(target->performed, CallLog{"stop"});
}

TEST_F(TrayStatusBarOn, ATrayGivesTheWindowTheTokenOfTheClick) {
  daemon.start();
  showTray();
  bus.connect();
  item = statusBar.statusItem(squareStatusItemLength);
  ASSERT_TRUE(host->hasItem());
  host->call(TrayHost::itemPath, TrayHost::itemInterface, "ProvideXdgActivationToken", "s", "first");
  host->call(TrayHost::itemPath, TrayHost::itemInterface, "ProvideXdgActivationToken", "s", "last");
  host->call(TrayHost::itemPath, TrayHost::itemInterface, "Activate", "ii", 0, 0);
  DialogsRun& run = dialogs.run();
  EXPECT_EQ(run.asked<dialogs::Raise>(1).front().activationToken, "last");
  run.asked<dialogs::ShowMenu>(1);
  host->call(TrayHost::itemPath, TrayHost::itemInterface, "Activate", "ii", 0, 0);
  EXPECT_EQ(run.asked<dialogs::Raise>(2).back().activationToken, "") << "a token serves once";
}

TEST_F(TrayStatusBarOn, ADesktopWithoutATrayHasTheMenuForTheWindowAllTheSame) {
  item = statusBar.statusItem(squareStatusItemLength);
  EXPECT_TRUE(item->hasButton());
  item->setMenu(menu);
  window.show();
  EXPECT_EQ(dialogs.run().asked<dialogs::ShowMenu>(1).front().menu, menu);
}

}  // namespace
}  // namespace kestrune::testing
