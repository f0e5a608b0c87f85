#include <gtest/gtest.h>

#include <ostream>

#include "tests/rig/RecordingTarget.h"
#include "tests/rig/StatusFace.h"

namespace kestrune::testing {
namespace {

using Titles = std::vector<std::string>;

struct Maker {
  const char* name;
  std::unique_ptr<StatusFace> (*make)();

  friend void PrintTo(const Maker& made, std::ostream* out) { *out << made.name; }
};

const Maker makers[] = {
    {"Fake", []() -> std::unique_ptr<StatusFace> { return std::make_unique<FakeFace>(); }},
    {"Tray", []() -> std::unique_ptr<StatusFace> { return std::make_unique<TrayFace>(); }},
    {"Pipes",
     []() -> std::unique_ptr<StatusFace> { return std::make_unique<TextFace>(TerminalRig::Line::pipes); }},
    {"Terminal",
     []() -> std::unique_ptr<StatusFace> { return std::make_unique<TextFace>(TerminalRig::Line::terminal); }},
};

struct StatusItemContract : ::testing::TestWithParam<Maker> {
  void show(const std::string& toolTip, const Menu& shown) {
    StatusButton button;
    button.toolTip = toolTip;
    item->setButton(button);
    item->setMenu(shown);
  }

  std::unique_ptr<StatusFace> face = GetParam().make();
  std::unique_ptr<StatusItem> item = face->bar().statusItem(squareStatusItemLength);
  std::shared_ptr<RecordingTarget> target = std::make_shared<RecordingTarget>();
  Menu menu{{
      {.id = 1, .title = "status", .enabled = false, .target = target},
      {.id = 2, .isSeparator = true, .target = target},
      {.id = 3, .title = "stop", .action = "stop", .target = target},
      {.id = 4, .title = "forbidden", .action = "forbidden", .enabled = false, .target = target},
  }};
};

INSTANTIATE_TEST_SUITE_P(Tray, StatusItemContract, ::testing::ValuesIn(makers),
                         [](const auto& made) { return made.param.name; });

TEST_P(StatusItemContract, GivesAnItemWithAButton) {
  ASSERT_NE(item, nullptr);
  EXPECT_TRUE(item->hasButton());
}

TEST_P(StatusItemContract, ShowsTheButtonAndTheMenuThatWereSetLast) {
  show("first", {{{.id = 1, .title = "other"}}});
  show("second", menu);
  EXPECT_EQ(face->toolTip(), "second");
  EXPECT_EQ(face->rows(), (Titles{"status", StatusFace::separator, "stop", "forbidden"}));
}

TEST_P(StatusItemContract, ShowsWhatChangedAfterTheUserHasLooked) {
  show("first", menu);
  EXPECT_EQ(face->rows().at(0), "status");
  menu.items[0].title = "changed";
  show("second", menu);
  EXPECT_EQ(face->toolTip(), "second");
  EXPECT_EQ(face->rows(), (Titles{"changed", StatusFace::separator, "stop", "forbidden"}));
}

TEST_P(StatusItemContract, PerformsWhatTheUserChoosesOnce) {
  show("tip", menu);
  face->choose(3);
  EXPECT_EQ(target->performed, CallLog{"stop"});
}

TEST_P(StatusItemContract, PerformsTheRowThatIsThereNow) {
  show("tip", menu);
  menu.items[2] = {.id = 3, .title = "go", .action = "go", .target = target};
  item->setMenu(menu);
  face->choose(3);
  EXPECT_EQ(target->performed, CallLog{"go"});
}

TEST_P(StatusItemContract, PerformsNoRowThatIsOnlyToBeRead) {
  show("tip", menu);
  for (const int number : {1, 2, 4}) face->choose(number);
  EXPECT_EQ(target->performed, CallLog{});
}

TEST_P(StatusItemContract, DoesNotKeepATargetAlive) {
  show("tip", menu);
  const std::weak_ptr<RecordingTarget> watched = target;
  target.reset();
  EXPECT_TRUE(watched.expired());
  face->choose(3);
  EXPECT_EQ(face->rows().at(2), "stop");
}

TEST_P(StatusItemContract, TakesANewMenuFromTheRowThatIsPerformed) {
  show("tip", menu);
  target->onPerform = [this] { item->setMenu({{{.id = 1, .title = "new"}}}); };
  face->choose(3);
  EXPECT_EQ(target->performed, CallLog{"stop"});
  EXPECT_EQ(face->rows(), Titles{"new"});
}

TEST_P(StatusItemContract, ShowsTextAsItIs) {
  menu.items[0].title = "a_b & <c>  🟢 連線";
  show("tip", menu);
  std::string seen = face->rows().at(0);
  // The tray writes an underscore that is to be seen twice.
  if (const auto at = seen.find("__"); at != std::string::npos) seen.erase(at, 1);
  EXPECT_EQ(seen, "a_b & <c>  🟢 連線");
}

}  // namespace
}  // namespace kestrune::testing
