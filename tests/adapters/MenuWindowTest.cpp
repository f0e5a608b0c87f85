#include <gtest/gtest.h>

#include <filesystem>
#include <ostream>

#include "adapters/windows/MenuWindow.h"
#include "tests/adapters/Loops.h"
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
  ~TheMenuWindow() override {
    window.close();
    EXPECT_TRUE(hasNoChildren(loop)) << "a test leaves a process behind";
  }

  DialogsRun& open(std::size_t number = 1) {
    window.show();
    DialogsRun& run = stand.run(number);
    run.asked<ShowMenu>(1);
    run.say(Shown{});
    return run;
  }
  std::string complaint(const std::string& reason) const {
    return "KestruneMenuClient: no menu window from " + stand.program() + ": " + reason + "\n";
  }
  bool complains() {
    return comesTrue(loop, [this] { return !errors.text().empty(); });
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
  MenuWindow window{loop, stand.program(), true};
};

TEST_F(TheMenuWindow, ComesOnlyWhenItIsAskedFor) {
  window.setMenu(menu);
  settleQueue(loop);
  EXPECT_TRUE(stand.runs.empty());
  EXPECT_TRUE(hasNoChildren(loop));
}

TEST_F(TheMenuWindow, ShowsTheMenuAsItIsNow) {
  window.setMenu({{{.id = 1, .title = "old"}}});
  window.setMenu(menu);
  EXPECT_EQ(open().asked<ShowMenu>(1).front().menu, menu);
}

TEST_F(TheMenuWindow, FollowsTheMenuWhileItIsOpen) {
  window.setMenu(menu);
  DialogsRun& run = open();
  menu.items[0].title = "changed";
  window.setMenu(menu);
  // The same again is no change.
  window.setMenu(Menu(menu));
  menu.items[3].checked = false;
  window.setMenu(menu);
  EXPECT_EQ(run.asked<ShowMenu>(3).back().menu, menu);
  EXPECT_EQ(run.asked<ShowMenu>(3)[1].menu.items[0].title, "changed");
}

TEST_F(TheMenuWindow, PerformsTheChosenRowOnceAndGoes) {
  window.setMenu(menu);
  DialogsRun& run = open();
  const std::string line = dialogs::encode(Chosen{3}) + "\n";
  run.say(line + line + "nonsense\n");
  EXPECT_TRUE(run.ends());
  settleQueue(loop);
  EXPECT_EQ(target->performed, CallLog{"stop"});
  EXPECT_EQ(errors.text(), "");
}

TEST_F(TheMenuWindow, PerformsTheRowThatIsThereNow) {
  window.setMenu(menu);
  DialogsRun& run = open();
  menu.items[2] = {.id = 3, .title = "go", .action = "go", .target = target};
  window.setMenu(menu);
  run.say(Chosen{3});
  EXPECT_TRUE(run.ends());
  EXPECT_EQ(target->performed, CallLog{"go"});
}

TEST_F(TheMenuWindow, PerformsNoRowThatCannotBeChosenAnyMore) {
  window.setMenu(menu);
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

TEST_F(TheMenuWindow, DoesNothingForARowWhoseTargetHasGone) {
  window.setMenu(menu);
  DialogsRun& run = open();
  const std::weak_ptr<RecordingTarget> watched = target;
  target.reset();
  EXPECT_TRUE(watched.expired());
  run.say(Chosen{3});
  EXPECT_TRUE(run.ends());
}

TEST_F(TheMenuWindow, MayBeShownAgainByTheRowThatIsPerformed) {
  window.setMenu(menu);
  DialogsRun& run = open();
  target->onPerform = [this] {
    window.setMenu({{{.id = 1, .title = "new"}}});
    window.show();
  };
  const std::string line = dialogs::encode(Chosen{3}) + "\n";
  run.say(line + line + "nonsense\n");
  DialogsRun& second = stand.run(2);
  EXPECT_EQ(second.asked<ShowMenu>(1).front().menu.items[0].title, "new");
  second.say(Shown{});
  EXPECT_TRUE(run.ends());
  settleQueue(loop);
  EXPECT_FALSE(second.ended) << "the end of the first must not close the second";
}

TEST_F(TheMenuWindow, GoesWithoutAWordWhenTheUserClosesIt) {
  window.setMenu(menu);
  open().end();
  EXPECT_TRUE(hasNoChildren(loop));
  settleQueue(loop);
  open(2);
  EXPECT_EQ(target->performed, CallLog{});
  EXPECT_EQ(errors.text(), "");
}

TEST_F(TheMenuWindow, ComesToTheFrontWhenItIsAskedForAgain) {
  window.setMenu(menu);
  DialogsRun& run = open();
  window.show();
  EXPECT_EQ(run.asked<Raise>(1).front().activationToken, "");
  window.show("token");
  EXPECT_EQ(run.asked<Raise>(2).back().activationToken, "token");
  EXPECT_EQ(stand.runs.size(), 1u);
  EXPECT_EQ(run.asked<ShowMenu>(1).size(), 1u);
}

TEST_F(TheMenuWindow, IsGivenTheTokenThatItIsActivatedByBeforeItComes) {
  window.setMenu(menu);
  window.show("token");
  DialogsRun& run = stand.run();
  run.asked<ShowMenu>(1);
  ASSERT_EQ(run.requests.size(), 2u);
  EXPECT_EQ(std::get<Raise>(run.requests[0]).activationToken, "token");
}

TEST_F(TheMenuWindow, HasTimeWithoutLimitOnceItIsThere) {
  constexpr Seconds limit{3};
  MenuWindow hasty(loop, stand.program(), true, limit);
  hasty.show();
  DialogsRun& run = stand.run();
  run.asked<ShowMenu>(1);
  run.say(Shown{});
  letPass(machine, limit + Seconds{0.05});
  EXPECT_FALSE(run.ended);
  EXPECT_EQ(errors.text(), "");
  run.end();
}

TEST_F(TheMenuWindow, GoesWhenItIsClosed) {
  window.setMenu(menu);
  DialogsRun& run = open();
  window.close();
  EXPECT_TRUE(run.ends());
  EXPECT_TRUE(hasNoChildren(loop));
  EXPECT_EQ(errors.text(), "");
  window.close();
}

TEST_F(TheMenuWindow, IsClosedAlsoWhenItsProgramHangs) {
  stand.replaceBy("exec " TEST_CHILD " ignore 15 pause");
  window.show();
  window.close();
  EXPECT_TRUE(hasNoChildren(loop));
}

TEST_F(TheMenuWindow, IsToldAsMissingWhereThereIsNoDisplay) {
  MenuWindow blind(loop, stand.program(), false);
  blind.setMenu(menu);
  for (int each = 0; each < 2; ++each) blind.show();
  EXPECT_EQ(errors.text(), complaint("there is no display"));
  settleQueue(loop);
  EXPECT_TRUE(stand.runs.empty());
}

/// A program that shows no window, and what is said of it.
struct Failure {
  const char* name;
  const char* script;  ///< null: there is no program
  const char* reason;
  Seconds patience = windowPatience;

  friend void PrintTo(const Failure& failure, std::ostream* out) { *out << failure.name; }
};

#define AND_HANG "\nexec " TEST_CHILD " pause"

const Failure failures[] = {
    {"Missing", nullptr, "No such file or directory"},
    {"Ends", "exit 0", "it ended before its window came"},
    {"Crashes", "kill -9 $$", "it ended before its window came"},
    // Long enough for one that does not.
    {"Hangs", AND_HANG, "its window did not come", Seconds{2}},
    {"SaysNonsense", "echo nonsense" AND_HANG, "it answered: a line that is not of the protocol"},
    {"SaysNonsenseLater", "echo '{\"version\":1,\"shown\":0}'\necho nonsense" AND_HANG,
     "it answered: a line that is not of the protocol"},
    {"Refuses", "echo '{\"version\":1,\"refused\":\"too much\"}'" AND_HANG, "too much"},
};

struct AMenuWindowWhoseProgram : TheMenuWindow, ::testing::WithParamInterface<Failure> {};
INSTANTIATE_TEST_SUITE_P(Each, AMenuWindowWhoseProgram, ::testing::ValuesIn(failures),
                         [](const auto& failure) { return failure.param.name; });

TEST_P(AMenuWindowWhoseProgram, IsToldAboutOnceAndCanBeTriedAgain) {
  const std::string good = stand.program() + "2";
  std::filesystem::rename(stand.program(), good);
  if (GetParam().script != nullptr) stand.replaceBy(GetParam().script);
  MenuWindow failing(loop, stand.program(), true, GetParam().patience);
  failing.setMenu(menu);
  for (int each = 0; each < 2; ++each) {
    failing.show();
    EXPECT_TRUE(complains());
    EXPECT_TRUE(hasNoChildren(loop));
    settleQueue(loop);
  }
  EXPECT_EQ(errors.text(), complaint(GetParam().reason));
  std::filesystem::rename(good, stand.program());
  failing.show();
  EXPECT_EQ(stand.run().asked<ShowMenu>(1).front().menu, menu);
  failing.close();
}

}  // namespace
}  // namespace kestrune::testing
