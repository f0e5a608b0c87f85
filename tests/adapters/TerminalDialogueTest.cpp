#include <gtest/gtest.h>

#include <termios.h>

#include <csignal>
#include <cstdio>
#include <fstream>

#include "platform/posix/QRSymbols.h"
#include "tests/support/RecordingTarget.h"
#include "tests/support/ScratchFolder.h"
#include "tests/support/TerminalRig.h"

namespace kestrune::testing {
namespace {

View label(const std::string& text) {
  return {.kind = ViewKind::label, .text = text};
}
View field(const std::string& name, const std::string& text, ViewKind kind = ViewKind::textField) {
  return {.kind = kind, .identifier = name, .text = text, .accessibilityLabel = "Field " + name};
}
View stack(std::vector<View> children) {
  return {.kind = ViewKind::stack, .children = std::move(children)};
}
View button(const std::string& title, const std::string& action) {
  return {.kind = ViewKind::button, .text = title, .action = action};
}
Alert form(std::vector<View> views) {
  return {.style = AlertStyle::informational,
          .messageText = "Form",
          .informativeText = "About it",
          .buttons = {"Save", "Cancel"},
          .accessoryView = stack(std::move(views))};
}

// --- what is asked and what becomes of the answers

TEST(TerminalDialogue, AsksForEachFieldWhereItStands) {
  TerminalDialogue dialogue(form({label("first"), stack({label("Field a"), field("a", "1")}),
                                  label("between"), field("b", ""), label("last")}),
                            {});
  EXPECT_EQ(dialogue.begin(),
            "\nℹ Form\n────────────────────────────\nAbout it\n"
            "（每一欄按 Enter 保留原值，輸入「清空」清除。）\n\nfirst\n");
  EXPECT_EQ(dialogue.question(), "Field a［1］> ");
  EXPECT_EQ(dialogue.take("2").text, "between\n");
  EXPECT_EQ(dialogue.question(), "Field b（未填）> ");
  EXPECT_EQ(dialogue.take("3").text, "last\n[1] Save  [2] Cancel  \n");
  EXPECT_EQ(dialogue.question(), "按鈕編號> ");
  const auto answer = dialogue.take("1").answer;
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->button, 0U);
  EXPECT_EQ(answer->fields, (std::map<std::string, std::string>{{"a", "2"}, {"b", "3"}}));
}

TEST(TerminalDialogue, KeepsEmptiesAndReplacesValues) {
  TerminalDialogue dialogue(form({field("kept", "1"), field("blank", "2"), field("emptied", "3"),
                                  field("emptied-widely", "4"), field("replaced", "5")}),
                            {});
  dialogue.begin();
  for (const char* const line : {"", "  ", "清空", " 清空 ", " x y "}) dialogue.take(line);
  EXPECT_EQ(
      dialogue.take("2").answer->fields,
      (std::map<std::string, std::string>{
          {"kept", "1"}, {"blank", "2"}, {"emptied", ""}, {"emptied-widely", ""}, {"replaced", " x y "}}));
}

TEST(TerminalDialogue, TellsOfASecretOnlyThatThereIsOne) {
  TerminalDialogue dialogue(form({field("key", "sk-secret", ViewKind::secureTextField),
                                  field("other", "", ViewKind::secureTextField), field("plain", "")}),
                            {});
  EXPECT_EQ(dialogue.begin().find("sk-secret"), std::string::npos);
  EXPECT_TRUE(dialogue.asksForSecret());
  EXPECT_EQ(dialogue.question(), "Field key（已填，不顯示）> ");
  dialogue.take("");
  EXPECT_TRUE(dialogue.asksForSecret());
  EXPECT_EQ(dialogue.question(), "Field other（未填，輸入時不顯示）> ");
  dialogue.take("new");
  EXPECT_FALSE(dialogue.asksForSecret());
  dialogue.take("");
  EXPECT_EQ(dialogue.take("1").answer->fields.at("key"), "sk-secret");
}

TEST(TerminalDialogue, NumbersTheButtonsInsideAfterItsOwn) {
  TerminalDialogue dialogue(form({button("Show", "show"), button("Hide", "hide")}), {});
  EXPECT_NE(dialogue.begin().find("\n[1] Save  [2] Cancel  [3] Show  [4] Hide  \n"), std::string::npos);
  const auto step = dialogue.take("4");
  EXPECT_EQ(step.action, "hide");
  EXPECT_FALSE(step.answer);
  EXPECT_EQ(dialogue.take("3").action, "show");
  for (const char* const wrong : {"5", "0", "-1", "x", "1x"}) {
    EXPECT_EQ(dialogue.take(wrong).text, "請輸入按鈕編號。\n") << wrong;
  }
  EXPECT_EQ(dialogue.take("").answer->button, 0U);
}

TEST(TerminalDialogue, ShowsNothingThatCouldCommandATerminal) {
  TerminalDialogue dialogue(form({label("\x1B[2Jl\na"), field("a", "\x1B]0;t\x07v")}), {});
  const std::string shown = dialogue.begin() + dialogue.question();
  EXPECT_EQ(shown.find('\x1B'), std::string::npos);
  EXPECT_EQ(shown.find('\x07'), std::string::npos);
}

TEST(TerminalDialogue, MarksHeadingsAndHintsInColour) {
  View heading = label("heading");
  heading.fontWeight = FontWeight::semibold;
  View hint = label("hint");
  hint.textColor = TextColor::secondary;
  TerminalDialogue dialogue(form({heading, hint}), {.styles = true});
  EXPECT_NE(dialogue.begin().find("\n\n\033[1mheading\033[0m\n\033[2mhint\033[0m\n"), std::string::npos);
}

// --- pictures

/// What a dark screen shows, in levels of grey, two for each cell.
std::vector<std::string> drawn(const std::string& text) {
  constexpr char black = '\0';
  constexpr char white = '\xFF';
  char ink = white;
  char paper = black;
  std::vector<std::string> rows;
  std::size_t begin = 0;
  for (std::size_t end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
    std::string upper;
    std::string lower;
    for (std::size_t at = begin; at < end;) {
      const std::string_view rest(text.data() + at, end - at);
      if (rest.starts_with("\033[38;5;")) {
        ink = rest.starts_with("\033[38;5;231;") ? white : black;
        paper = rest.substr(0, rest.find('m')).ends_with(";48;5;231") ? white : black;
        at += rest.find('m') + 1;
      } else if (rest.starts_with("\033[0m")) {
        ink = white;
        paper = black;
        at += 4;
      } else if (rest.front() == ' ') {
        upper += paper;
        lower += paper;
        ++at;
      } else {
        const auto block = rest.substr(0, 3);
        upper += block == "█" || block == "▀" ? ink : paper;
        lower += block == "█" || block == "▄" ? ink : paper;
        at += 3;
      }
    }
    rows.push_back(upper);
    rows.push_back(lower);
  }
  return rows;
}

std::string readBack(const std::vector<std::string>& rows) {
  constexpr std::size_t scale = 6;
  const ScratchFolder folder;
  std::ofstream picture(folder.file("a.pgm"), std::ios::binary);
  picture << "P5\n" << rows[0].size() * scale << " " << rows.size() * scale << "\n255\n";
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < scale; ++i) {
      for (const char each : row) picture << std::string(scale, each);
    }
  }
  picture.close();
  FILE* const reader =
      popen(("zbarimg --nodbus --quiet --raw -Sbinary " + folder.file("a.pgm")).c_str(), "r");
  std::string text;
  char buffer[4096];
  for (std::size_t count; (count = fread(buffer, 1, sizeof buffer, reader)) > 0;) text.append(buffer, count);
  EXPECT_EQ(pclose(reader), 0);
  return text;
}

TEST(TerminalDialogue, DrawsACodeThatIsReadFromTheScreen) {
  QRSymbols symbols;
  for (const std::string& message :
       {std::string("a"),
        "kestrune://configure?apiUrl=https://relay.example.com&token=" + std::string(40, 't'),
        std::string(300, 'x')}) {
    for (const bool colored : {false, true}) {
      Image image{.width = 260, .height = 260, .bitmaps = {*symbols.generate(message)}};
      TerminalDialogue dialogue({.style = AlertStyle::informational,
                                 .messageText = "Code",
                                 .informativeText = "",
                                 .buttons = {"OK"},
                                 .accessoryView = View{.kind = ViewKind::image,
                                                       .image = std::make_shared<Image>(std::move(image))}},
                                {.colors = colored});
      std::string text = dialogue.begin();
      text.erase(0, text.find("\n\n", 1) + 2);
      text.erase(text.find("[1]"));
      EXPECT_EQ(readBack(drawn(text)), message) << text;
    }
  }
}

TEST(TerminalDialogue, DrawsNoCodeThatWouldBeBroken) {
  QRSymbols symbols;
  const Image image{.width = 260, .height = 260, .bitmaps = {*symbols.generate("a")}};
  const int width = image.bitmaps[0].width;
  const Alert alert{.messageText = "Code",
                    .informativeText = "",
                    .buttons = {"OK"},
                    .accessoryView = View{.kind = ViewKind::image, .image = std::make_shared<Image>(image)}};
  EXPECT_NE(TerminalDialogue(alert, {.columns = width}).begin().find("█"), std::string::npos);
  const std::string narrow = TerminalDialogue(alert, {.columns = width - 1}).begin();
  EXPECT_EQ(narrow.find("█"), std::string::npos);
  EXPECT_NE(narrow.find("（終端機太窄，圖放不下：需要 29 欄，現在是 28 欄。）\n"), std::string::npos)
      << narrow;
}

// --- on a terminal

struct TerminalForm : ::testing::TestWithParam<TerminalRig::Line> {
  void SetUp() override {
    item = rig.face->statusItem(squareStatusItemLength);
    item->setMenu({{{.id = 1, .title = "the-row"}}});
    ASSERT_TRUE(rig.screen.shows("the-row"));
  }

  void present(Alert alert, const std::string& identifier = {}) {
    alert.target = target;
    rig.face->present({.describe =
                           [this, alert] {
                             ++described;
                             return alert;
                           },
                       .completion = [this](const AlertAnswer& answer) { answers.push_back(answer); },
                       .identifier = identifier});
  }
  /// For one answer, and does not end it.
  void typeTooMuch() {
    for (int piece = 0; piece < (GetParam() == TerminalRig::Line::terminal ? 5 : 70); ++piece) {
      rig.type(std::string(1000, 'x'));
      rig.settle();
    }
  }
  bool isAnswered() {
    return comesTrue(loop, [this] { return !answers.empty(); });
  }
  bool isEchoed() const {
    termios settings{};
    EXPECT_EQ(tcgetattr(rig.terminal.inside.get(), &settings), 0);
    return (settings.c_lflag & ECHO) != 0;
  }

  EventLoop loop;
  TerminalRig rig{loop, GetParam()};
  std::unique_ptr<StatusItem> item;
  std::shared_ptr<RecordingTarget> target = std::make_shared<RecordingTarget>();
  int described = 0;
  std::vector<AlertAnswer> answers;
};

INSTANTIATE_TEST_SUITE_P(On, TerminalForm,
                         ::testing::Values(TerminalRig::Line::pipes, TerminalRig::Line::terminal),
                         [](const auto& line) {
                           return line.param == TerminalRig::Line::pipes ? "Pipes" : "Terminal";
                         });

TEST_P(TerminalForm, IsFilledInFieldByField) {
  present(form({field("a", "1"), field("b", "2")}));
  EXPECT_TRUE(rig.screen.shows("Field a［1］> "));
  EXPECT_EQ(rig.screen.count("Field b"), 0U);
  rig.type("new\n");
  EXPECT_TRUE(rig.screen.shows("Field b［2］> "));
  rig.type("\n");
  EXPECT_TRUE(rig.screen.shows("[1] Save  [2] Cancel"));
  rig.type("1\n");
  ASSERT_TRUE(isAnswered());
  EXPECT_EQ(answers[0].fields, (std::map<std::string, std::string>{{"a", "new"}, {"b", "2"}}));
}

TEST_P(TerminalForm, IsCancelledByTheEndOfTheInput) {
  present(form({field("a", "1")}));
  EXPECT_TRUE(rig.screen.shows("Field a［1］> "));
  rig.endInput();
  ASSERT_TRUE(isAnswered());
  EXPECT_EQ(answers[0].button, std::nullopt);
}

TEST_P(TerminalForm, IsThereOnceUnderItsIdentifier) {
  present(form({}), "form");
  present(form({}), "form");
  EXPECT_TRUE(rig.screen.shows("[1] Save"));
  present(form({}), "form");
  rig.type("2\n");
  ASSERT_TRUE(isAnswered());
  settleQueue(loop);
  EXPECT_EQ(described, 1);
  EXPECT_EQ(answers.size(), 1U);
  present(form({}), "form");
  settleQueue(loop);
  EXPECT_EQ(described, 2);
}

TEST_P(TerminalForm, StandsBeneathWhatItsButtonsAskFor) {
  target->onPerform = [this] {
    present({.messageText = "On top", .informativeText = "", .buttons = {"Fine"}});
  };
  present(form({button("Show", "show")}));
  present({.messageText = "Later", .informativeText = "", .buttons = {"Bye"}});
  EXPECT_TRUE(rig.screen.shows("[3] Show"));
  rig.type("3\n");
  EXPECT_TRUE(rig.screen.shows("[1] Fine"));
  EXPECT_EQ(target->performed, CallLog{"show"});
  EXPECT_EQ(rig.screen.count("Later"), 0U);
  rig.type("1\n");
  ASSERT_TRUE(isAnswered());
  EXPECT_TRUE(comesTrue(loop, [this] { return rig.screen.count("[3] Show") == 2; }));
  rig.type("1\n");
  EXPECT_TRUE(rig.screen.shows("[1] Bye"));
  EXPECT_EQ(answers.size(), 2U);
}

TEST_P(TerminalForm, TakesEachOfManyLinesForTheQuestionThatIsOpenByThen) {
  target->onPerform = [this] {
    present({.messageText = "On top", .informativeText = "", .buttons = {"Fine"}});
  };
  present(form({field("a", "1"), field("b", "2"), button("Show", "show")}), "form");
  EXPECT_TRUE(rig.screen.shows("Field a"));
  // The empty line closes what stands on top, and not the form beneath.
  rig.type("new\n\n3\n\n2\n");
  EXPECT_TRUE(comesTrue(loop, [this] { return answers.size() == 2; }));
  EXPECT_EQ(answers.at(0).button, 0U);
  EXPECT_EQ(answers.at(0).fields.size(), 0U);
  EXPECT_EQ(answers.at(1).button, 1U);
  EXPECT_EQ(answers.at(1).fields.at("a"), "new");
}

TEST_P(TerminalForm, RefusesAnAnswerThatIsTooLongAndAsksAgain) {
  present(form({field("a", "1"), field("b", "2")}));
  EXPECT_TRUE(rig.screen.shows("Field a［1］> "));
  typeTooMuch();
  rig.type("\n");
  const std::string limit = GetParam() == TerminalRig::Line::terminal ? "4094" : "65536";
  EXPECT_TRUE(
      rig.screen.shows("這一行太長，沒有採用：最多 " + limit + " 個位元組。請重新輸入。\nField a［1］> "));
  rig.type("new\n");
  EXPECT_TRUE(rig.screen.shows("Field b［2］> "));
  rig.type("\n1\n");
  ASSERT_TRUE(isAnswered());
  EXPECT_EQ(answers[0].fields, (std::map<std::string, std::string>{{"a", "new"}, {"b", "2"}}));
}

TEST_P(TerminalForm, IsCancelledByAnEndWithinAnAnswerThatIsTooLong) {
  present(form({field("a", "1")}));
  EXPECT_TRUE(rig.screen.shows("Field a［1］> "));
  typeTooMuch();
  rig.endInput();
  // On a terminal the first end only passes on what was typed.
  if (GetParam() == TerminalRig::Line::terminal) rig.endInput();
  ASSERT_TRUE(isAnswered());
  EXPECT_EQ(answers[0].button, std::nullopt);
  EXPECT_TRUE(rig.screen.shows("這一行太長"));
}

TEST_P(TerminalForm, KeepsTheAnswerThatIsBeingTypedWhenTheMenuChanges) {
  present(form({field("a", "1"), field("b", "2")}));
  EXPECT_TRUE(rig.screen.shows("Field a［1］> "));
  rig.type("ne");
  if (GetParam() == TerminalRig::Line::terminal) {
    EXPECT_TRUE(rig.screen.shows("> ne"));
  }
  rig.settle();
  item->setMenu({{{.id = 1, .title = "changed"}}});
  rig.settle();
  rig.face->printMenu();
  EXPECT_TRUE(rig.screen.shows("changed"));
  rig.type("w\n");
  EXPECT_TRUE(rig.screen.shows("Field b［2］> "));
  rig.type("\n1\n");
  ASSERT_TRUE(isAnswered());
  EXPECT_EQ(answers[0].fields.at("a"), "new");
}

struct TerminalSecret : TerminalForm {};
INSTANTIATE_TEST_SUITE_P(On, TerminalSecret, ::testing::Values(TerminalRig::Line::terminal),
                         [](const auto&) { return "Terminal"; });

TEST_P(TerminalSecret, IsNotSeen) {
  present(form({field("key", "", ViewKind::secureTextField), field("b", "2")}));
  EXPECT_TRUE(isEchoed());
  EXPECT_TRUE(rig.screen.shows("Field key（未填，輸入時不顯示）> "));
  EXPECT_FALSE(isEchoed());
  rig.type("sk-secret\n");
  EXPECT_TRUE(rig.screen.shows("輸入時不顯示）> \nField b［2］> "));
  EXPECT_TRUE(isEchoed());
  rig.type("\n1\n");
  ASSERT_TRUE(isAnswered());
  EXPECT_EQ(answers[0].fields.at("key"), "sk-secret");
  EXPECT_EQ(rig.screen.count("sk-secret"), 0U);
}

TEST_P(TerminalSecret, IsNotSeenEitherWhenItIsTooLong) {
  present(form({field("key", "", ViewKind::secureTextField), field("b", "2")}));
  EXPECT_TRUE(rig.screen.shows("Field key（未填，輸入時不顯示）> "));
  rig.type("sk-" + std::string(5000, 'x') + "\n");
  EXPECT_TRUE(
      rig.screen.shows("輸入時不顯示）> \n這一行太長，沒有採用：最多 4094 個位元組。請重新輸入。\n"
                       "Field key（未填，輸入時不顯示）> "));
  EXPECT_FALSE(isEchoed());
  rig.type("sk-short\n");
  EXPECT_TRUE(rig.screen.shows("Field b［2］> "));
  rig.type("\n1\n");
  ASSERT_TRUE(isAnswered());
  EXPECT_EQ(answers[0].fields.at("key"), "sk-short");
  EXPECT_EQ(rig.screen.count("sk-"), 0U);
}

TEST_P(TerminalSecret, IsNotTakenFromWhatWasTypedBehindARefusedAnswer) {
  present(form({field("key", "old", ViewKind::secureTextField), field("b", "2")}));
  EXPECT_TRUE(rig.screen.shows("Field key（已填，不顯示）> "));
  rig.type(std::string(5000, 'x') + "\nfor b\n1\n");
  EXPECT_TRUE(rig.screen.shows("請重新輸入。\nField key（已填，不顯示）> "));
  rig.type("new\n");
  EXPECT_TRUE(rig.screen.shows("Field b［2］> "));
  rig.type("\n1\n");
  ASSERT_TRUE(isAnswered());
  EXPECT_EQ(answers[0].fields, (std::map<std::string, std::string>{{"key", "new"}, {"b", "2"}}));
}

TEST_P(TerminalSecret, LeavesTheTerminalAsItWas) {
  present(form({field("key", "", ViewKind::secureTextField)}));
  EXPECT_TRUE(rig.screen.shows("Field key"));
  EXPECT_FALSE(isEchoed());
  rig.face->close();
  EXPECT_TRUE(isEchoed());
}

TEST_P(TerminalSecret, LeavesTheTerminalAsItWasAlsoAtTheEndOfTheInput) {
  present(form({field("key", "", ViewKind::secureTextField)}));
  EXPECT_TRUE(rig.screen.shows("Field key"));
  rig.endInput();
  ASSERT_TRUE(isAnswered());
  EXPECT_EQ(answers[0].button, std::nullopt);
  EXPECT_TRUE(isEchoed());
}

TEST_P(TerminalSecret, LeavesATerminalSilentThatWasSilentBefore) {
  termios settings{};
  ASSERT_EQ(tcgetattr(rig.terminal.inside.get(), &settings), 0);
  settings.c_lflag &= ~tcflag_t{ECHO};
  ASSERT_EQ(tcsetattr(rig.terminal.inside.get(), TCSANOW, &settings), 0);
  present(form({field("key", "", ViewKind::secureTextField), field("b", "2")}));
  EXPECT_TRUE(rig.screen.shows("Field key"));
  rig.type("x\n");
  EXPECT_TRUE(rig.screen.shows("Field b"));
  EXPECT_FALSE(isEchoed());
  rig.face->close();
  EXPECT_FALSE(isEchoed());
}

TEST_P(TerminalSecret, IsHiddenAgainWhenThisJobComesBack) {
  present(form({field("key", "", ViewKind::secureTextField)}));
  EXPECT_TRUE(rig.screen.shows("Field key"));
  termios settings{};
  ASSERT_EQ(tcgetattr(rig.terminal.inside.get(), &settings), 0);
  settings.c_lflag |= ECHO;
  ASSERT_EQ(tcsetattr(rig.terminal.inside.get(), TCSANOW, &settings), 0);
  raise(SIGCONT);
  EXPECT_TRUE(comesTrue(loop, [this] { return !isEchoed(); }));
}

}  // namespace
}  // namespace kestrune::testing
