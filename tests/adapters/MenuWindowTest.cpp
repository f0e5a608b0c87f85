#include <filesystem>

#include "adapters/windows/DialogWindows.h"
#include "tests/adapters/Loops.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/RecordingTarget.h"
#include "tests/rig/StandInDialogs.h"
#include "tests/rig/StandardErrorText.h"

namespace kestrune::testing {
namespace {

using dialogs::Chosen;
using dialogs::Raise;
using dialogs::ShowMenu;
using dialogs::Shown;

struct TheMenuWindow : ::testing::Test {
  void SetUp() override { window.setMenu(menu); }
  ~TheMenuWindow() override {
    window.close();
    EXPECT_TRUE(hasNoChildren(loop)) << "a test leaves a process behind";
  }

  DialogsRun& open(std::size_t number = 1) {
    window.showMenu();
    DialogsRun& run = stand.run(number);
    run.asked<ShowMenu>(1);
    run.say(Shown{});
    return run;
  }

  RealLoop machine;
  EventLoop& loop = machine.loop;
  StandInDialogs stand{loop};
  const StandardErrorText errors;
  std::shared_ptr<RecordingTarget> target = std::make_shared<RecordingTarget>();
  Menu menu{{
      {.id = 1, .title = "status", .enabled = false, .target = target},
      {.id = 2, .isSeparator = true, .target = target},
      {.id = 3, .title = "stop", .action = "stop", .target = target},
      {.id = 4, .title = "tick", .action = "tick", .checked = true, .target = target},
  }};
  CallLog log;
  FakeNotifications notifications{log};
  DialogProgram program{loop, stand.program(), true, notifications};
  DialogWindows window{program};
};

TEST_F(TheMenuWindow, ShowsTheLatestMenu) {
  window.setMenu({{{.id = 1, .title = "old"}}});
  window.setMenu(menu);
  settleQueue(loop);
  EXPECT_TRUE(stand.runs.empty()) << "before it is asked for";
  EXPECT_EQ(open().asked<ShowMenu>(1).front().menu, menu);
}

TEST_F(TheMenuWindow, FollowsTheMenuWhileItIsOpen) {
  DialogsRun& run = open();
  menu.items[0].title = "changed";
  window.setMenu(menu);
  // An equal menu is no change, so the client does not send it.
  window.setMenu(Menu(menu));
  menu.items[3].checked = false;
  window.setMenu(menu);
  EXPECT_EQ(run.asked<ShowMenu>(3).back().menu, menu);
  EXPECT_EQ(run.asked<ShowMenu>(3)[1].menu.items[0].title, "changed");
}

TEST_F(TheMenuWindow, PerformsTheCurrentActionOfTheRow) {
  DialogsRun& run = open();
  menu.items[2] = {.id = 3, .title = "go", .action = "go", .target = target};
  window.setMenu(menu);
  run.say(Chosen{3});
  EXPECT_TRUE(run.ends());
  EXPECT_EQ(target->performed, CallLog{"go"});
}

TEST_F(TheMenuWindow, PerformsNoRowThatIsDisabledOrUnknown) {
  menu.items[2].enabled = false;
  std::size_t number = 0;
  for (const int row : {3, 1, 2, 99}) {
    DialogsRun& run = open(++number);
    window.setMenu(menu);
    run.say(Chosen{row});
    EXPECT_TRUE(run.ends());
  }
  settleQueue(loop);
  EXPECT_EQ(target->performed, CallLog{});
  EXPECT_EQ(errors.text(), "");
}

TEST_F(TheMenuWindow, PerformsTheChosenRowOnceAndCanBeShownAgainByIt) {
  DialogsRun& run = open();
  target->onPerform = [this] {
    window.setMenu({{{.id = 1, .title = "new"}}});
    window.showMenu();
  };
  const std::string line = dialogs::encode<dialogs::Event>(Chosen{3}) + "\n";
  run.say(line + line + "nonsense\n");
  DialogsRun& second = stand.run(2);
  EXPECT_EQ(second.asked<ShowMenu>(1).front().menu.items[0].title, "new");
  second.say(Shown{});
  EXPECT_TRUE(run.ends());
  settleQueue(loop);
  EXPECT_FALSE(second.ended) << "the end of the first must not close the second";
  EXPECT_EQ(target->performed, CallLog{"stop"});
  EXPECT_EQ(errors.text(), "");
}

TEST_F(TheMenuWindow, ReportsNothingWhenTheUserClosesIt) {
  open().end();
  EXPECT_TRUE(hasNoChildren(loop));
  settleQueue(loop);
  open(2);
  EXPECT_EQ(target->performed, CallLog{});
  EXPECT_EQ(errors.text(), "");
}

TEST_F(TheMenuWindow, IsRaisedWhenItIsShownAgain) {
  window.giveToken("first");
  window.showMenu();
  DialogsRun& run = open();
  // The first activation token is sent before the menu, so that the window has the token when it opens.
  EXPECT_EQ(std::get<Raise>(run.requests[0]).activationToken, "first");
  EXPECT_EQ(run.asked<Raise>(2).back().activationToken, "");
  window.giveToken("token");
  window.showMenu();
  EXPECT_EQ(run.asked<Raise>(3).back().activationToken, "token");
  EXPECT_EQ(stand.runs.size(), 1u);
  EXPECT_EQ(run.asked<ShowMenu>(1).size(), 1u);
}

TEST_F(TheMenuWindow, IsClosedWhenItsProgramHangs) {
  stand.replaceBy("exec " TEST_CHILD " ignore 15 pause");
  window.showMenu();
  window.close();
  EXPECT_TRUE(hasNoChildren(loop));
}

TEST_F(TheMenuWindow, IsReportedOnceWhenItFailsAndCanBeShownAgain) {
  const std::string good = stand.program() + "2";
  std::filesystem::rename(stand.program(), good);
  stand.replaceBy("kill -9 $$");
  for (int each = 0; each < 2; ++each) {
    window.showMenu();
    EXPECT_TRUE(comesTrue(loop, [this] { return !errors.text().empty(); }));
    EXPECT_TRUE(hasNoChildren(loop));
    settleQueue(loop);
  }
  EXPECT_EQ(errors.text(), "KestruneMenuClient: no window from " + stand.program() +
                               ": it ended before its window appeared\n");
  std::filesystem::rename(good, stand.program());
  EXPECT_EQ(open().asked<ShowMenu>(1).front().menu, menu);
}

}  // namespace
}  // namespace kestrune::testing
