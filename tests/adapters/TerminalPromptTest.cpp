#include <poll.h>
#include <sys/ioctl.h>

#include <csignal>

#include "tests/rig/RecordingTarget.h"
#include "tests/rig/TerminalRig.h"

namespace kestrune::testing {
namespace {

TEST(TerminalPrompt, FollowsEveryPrintOnATerminal) {
  EventLoop loop;
  TerminalRig rig(loop, TerminalRig::Line::terminal);
  rig.face->setMenu({{{.id = 1, .title = "row"}}});
  EXPECT_TRUE(rig.screen.shows("row\n列號或按鍵> "));
  rig.type("unknown\n");
  EXPECT_TRUE(rig.screen.shows("沒有這一列：unknown\n列號或按鍵> "));
  rig.type("1\n");
  EXPECT_TRUE(rig.screen.shows("這一列只供查看：row\n列號或按鍵> "));
  rig.present({.messageText = "?", .informativeText = "", .buttons = {"OK"}});
  EXPECT_TRUE(rig.screen.shows("[1] OK  \n按鈕編號> "));
  rig.type("2\n");
  EXPECT_TRUE(rig.screen.shows("請輸入按鈕編號。\n按鈕編號> "));
}

TEST(TerminalPrompt, ComesBackOnceAfterARow) {
  EventLoop loop;
  TerminalRig rig(loop, TerminalRig::Line::terminal);
  const auto target = std::make_shared<RecordingTarget>();
  target->onPerform = [&] {
    if (target->performed.back() == "change") rig.face->setMenu({{{.id = 1, .title = "changed"}}});
  };
  rig.face->setMenu({{{.id = 1, .title = "quiet", .action = "none", .target = target},
                      {.id = 2, .title = "change it", .action = "change", .target = target}}});
  EXPECT_TRUE(rig.screen.shows("change it\n列號或按鍵> "));
  rig.screen.text.clear();
  rig.type("1\n");
  EXPECT_TRUE(rig.screen.shows("1\n列號或按鍵> "));
  rig.screen.text.clear();
  rig.type("2\n");
  EXPECT_TRUE(rig.screen.shows("changed\n列號或按鍵> "));
  rig.settle();
  EXPECT_EQ(rig.screen.count("列號或按鍵> "), 1U);
}

/// A client that has printed its menu on a terminal.
struct TerminalChanges : ::testing::Test {
  TerminalChanges() {
    rig.face->setButton({.toolTip = "Kestrune"});
    rig.face->setMenu(menu);
    EXPECT_TRUE(rig.screen.shows("third\n列號或按鍵> "));
    rig.screen.text.clear();
  }

  void setRow(std::size_t index, const std::string& title) {
    menu.items[index].title = title;
    rig.face->setMenu(menu);
  }
  std::string shown(const std::string& typed = "") {
    rig.type(typed);
    EXPECT_TRUE(comesTrue(loop, [this] { return rig.screen.text.ends_with("> "); }));
    rig.settle();
    return std::exchange(rig.screen.text, {});
  }
  /// Sets the terminal's height. The client reads the height at each print of the menu. The client gets no
  /// SIGWINCH, because this terminal is not the client's controlling terminal.
  void setHeight(unsigned short rows) const {
    const winsize size{.ws_row = rows, .ws_col = 80, .ws_xpixel = 0, .ws_ypixel = 0};
    ASSERT_EQ(ioctl(rig.terminal.inside.get(), TIOCSWINSZ, &size), 0);
  }

  static constexpr auto whole =
      "\nKestrune\n────────────────────────────\n 1      first\n 2  s ✗ second\n 3      third\n列號或按鍵> ";

  EventLoop loop;
  TerminalRig rig{loop, TerminalRig::Line::terminal};
  Menu menu{{{.id = 1, .title = "first"},
             {.id = 2, .title = "second", .action = "switch", .keyEquivalent = "s", .checked = false},
             {.id = 3, .title = "third"}}};
};

TEST_F(TerminalChanges, ArePrintedAlone) {
  setRow(0, "other");
  EXPECT_EQ(shown(), "\n 1      other\n列號或按鍵> ");
  menu.items[1].checked = true;
  setRow(2, "last");
  rig.face->setButton({.toolTip = "Kestrune · ok"});
  EXPECT_EQ(shown(), "\nKestrune · ok\n 2  s ✓ second\n 3      last\n列號或按鍵> ");
  rig.face->add({"id", "news", "of the day"});
  EXPECT_EQ(shown(), "\nnews：of the day\n列號或按鍵> ");
}

TEST_F(TerminalChanges, ThatAreUndoneAtOnceAreNotPrinted) {
  setRow(0, "other");
  setRow(0, "first");
  rig.settle();
  EXPECT_EQ(rig.screen.text, "");
}

TEST_F(TerminalChanges, OfTheRowsThemselvesPrintTheWholeMenu) {
  menu.items.pop_back();
  rig.face->setMenu(menu);
  EXPECT_NE(shown().find("first"), std::string::npos);
}

TEST_F(TerminalChanges, AreInTheWholeMenuThatIsAskedFor) {
  EXPECT_EQ(shown("\n"), std::string("\n") + whole);
  EXPECT_EQ(shown("  \n"), std::string("  \n") + whole);
  EXPECT_EQ(shown("?\n"), std::string("?\n") + whole);
  rig.face->printMenu();
  EXPECT_EQ(shown(), whole);
}

TEST_F(TerminalChanges, OfTheTerminalsSizePrintTheWholeMenuOnce) {
  raise(SIGWINCH);
  rig.settle();
  EXPECT_EQ(rig.screen.text, "") << "more may follow";
  raise(SIGWINCH);
  EXPECT_EQ(shown(), whole);
}

TEST_F(TerminalChanges, OfTheTerminalsSizeDrawThePictureOfAnAlertAgain) {
  setHeight(3);
  const View picture{.kind = ViewKind::image, .image = makeTestImage(8, 255, 255, 255)};
  rig.present({.messageText = "?", .informativeText = "", .buttons = {"OK"}, .accessoryView = picture});
  EXPECT_TRUE(rig.screen.shows("終端機太小"));
  setHeight(24);
  raise(SIGWINCH);
  EXPECT_TRUE(rig.screen.shows("████████\n"));
}

TEST_F(TerminalChanges, RepeatTheTitleWhereTheTopScrollsAway) {
  setHeight(7);
  EXPECT_EQ(shown("?\n"), std::string("?\n") + whole);
  setHeight(6);
  const std::string text = shown("?\n");
  EXPECT_TRUE(text.ends_with("third\nKestrune\n列號或按鍵> ")) << text;
}

/// A client in a terminal. Its menu has 14 rows. The name of each row's action is the row's number.
struct TerminalTyping : ::testing::Test {
  TerminalTyping() {
    show("first");
    EXPECT_TRUE(rig.screen.shows("first\n列號或按鍵> "));
  }

  void show(const std::string& last) {
    Menu menu;
    for (int row = 1; row <= 14; ++row) {
      menu.items.push_back({.id = row, .title = "row", .action = std::to_string(row), .target = target});
    }
    menu.items.back().title = last;
    rig.face->setMenu(menu);
  }
  /// Types `text`, and waits until the terminal has echoed `echo` (a terminal does not echo Ctrl-D). The
  /// event loop does not run after the typing, so the client has not read `text` yet.
  void type(std::string_view text, std::string_view echo) {
    rig.settle();
    rig.screen.text.clear();
    rig.type(text);
    for (pollfd shown{rig.terminal.outside.get(), POLLIN, 0}; rig.screen.text != echo; rig.screen.read()) {
      ASSERT_EQ(poll(&shown, 1, patienceInMilliseconds), 1) << rig.screen.text;
    }
  }
  bool performs(const CallLog& rows) {
    return comesTrue(loop, [&] { return target->performed == rows; });
  }

  EventLoop loop;
  TerminalRig rig{loop, TerminalRig::Line::terminal};
  std::shared_ptr<RecordingTarget> target = std::make_shared<RecordingTarget>();
};

TEST_F(TerminalTyping, IsDiscardedWhenTheMenuIsPrintedUnasked) {
  // Ctrl-D (\x04) makes the terminal deliver the text typed so far, without a line end.
  for (const std::string typed : {"1", "1\x04"}) {
    for (const bool changed : {true, false}) {
      target->performed.clear();
      type(typed, "1");
      rig.settle();
      changed ? show("changed " + typed) : rig.face->printMenu();
      EXPECT_TRUE(rig.screen.shows("\n列號或按鍵> "));
      rig.type("4\n");
      EXPECT_TRUE(performs({"4"})) << ::testing::PrintToString(target->performed);
    }
  }
}

TEST_F(TerminalTyping, IsKeptIfItsLineWasFinishedBefore) {
  type("3\n5\n1", "3\n5\n1");
  show("changed");
  EXPECT_TRUE(rig.screen.shows("changed\n列號或按鍵> "));
  rig.type("4\n");
  EXPECT_TRUE(performs({"3", "5", "4"})) << ::testing::PrintToString(target->performed);
}

TEST_F(TerminalTyping, EndOfInputIsReportedWithoutANewPrompt) {
  rig.type("\x04");
  EXPECT_TRUE(rig.screen.shows("\n輸入已結束"));
  rig.screen.text.clear();
  show("last");
  EXPECT_TRUE(rig.screen.shows("last\n"));
  rig.settle();
  EXPECT_EQ(rig.screen.count("> "), 0U);
}

TEST_F(TerminalTyping, EndIsNoticedWhenTheMenuIsPrintedAtTheSameTime) {
  type("\x04", "");
  rig.face->printMenu();  // discards what was typed, and so reads the end of the input before the loop does
  bool isCancelled = false;
  rig.present({.messageText = "?", .informativeText = "", .buttons = {"OK"}},
              [&](const AlertAnswer& given) { isCancelled = !given.button; });
  EXPECT_TRUE(comesTrue(loop, [&] { return isCancelled; }));
}

TEST_F(TerminalTyping, IsNotTheAnswerToALaterQuestion) {
  type("2", "2");
  std::optional<AlertAnswer> answer;
  rig.present({.messageText = "?", .informativeText = "", .buttons = {"Yes", "No"}},
              [&](const AlertAnswer& given) { answer = given; });
  EXPECT_TRUE(rig.screen.shows("按鈕編號> "));
  rig.type("\n");
  EXPECT_TRUE(comesTrue(loop, [&] { return answer.has_value(); }));
  EXPECT_EQ(answer->button, 0U);
}

TEST(TerminalPrompt, FollowsAReportOf2Megabytes) {
  EventLoop loop;
  TerminalRig rig(loop, TerminalRig::Line::terminal);
  const std::string report(2'000'000, 'x');
  rig.present({.messageText = "?", .informativeText = report, .buttons = {"OK"}});
  EXPECT_TRUE(comesTrue(loop, [&] { return rig.screen.text.ends_with("[1] OK  \n按鈕編號> "); }));
}

}  // namespace
}  // namespace kestrune::testing
