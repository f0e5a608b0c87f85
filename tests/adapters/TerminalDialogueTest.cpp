#include <gtest/gtest.h>

#include "adapters/pictures/Pictures.h"
#include "adapters/terminal/TerminalDialogue.h"
#include "tests/rig/FormViews.h"
#include "tests/rig/OutputOf.h"

namespace kestrune::testing {
namespace {

TEST(TerminalDialogue, AsksForEachFieldWhereItStands) {
  TerminalDialogue dialogue(form({label("first"), stack({label("Field a"), field("a", "1")}),
                                  label("between"), field("b", ""), label("last")}),
                            {}, 0, 0);
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

TEST(TerminalDialogue, MarksAWarning) {
  Alert alert = form({});
  alert.style = AlertStyle::warning;
  EXPECT_TRUE(TerminalDialogue(alert, {}, 0, 0).begin().starts_with("\n⚠ Form\n"));
}

TEST(TerminalDialogue, KeepsClearsAndReplacesValues) {
  TerminalDialogue dialogue(form({field("kept", "1"), field("blank", "2"), field("emptied", "3"),
                                  field("emptied-widely", "4"), field("replaced", "5")}),
                            {}, 0, 0);
  dialogue.begin();
  for (const char* const line : {"", "  ", "清空", " 清空 ", " x y "}) dialogue.take(line);
  EXPECT_EQ(
      dialogue.take("2").answer->fields,
      (std::map<std::string, std::string>{
          {"kept", "1"}, {"blank", "2"}, {"emptied", ""}, {"emptied-widely", ""}, {"replaced", " x y "}}));
}

TEST(TerminalDialogue, ShowsOnlyWhetherThereIsASecret) {
  TerminalDialogue dialogue(form({field("key", "sk-secret", ViewKind::secureTextField),
                                  field("other", "", ViewKind::secureTextField), field("plain", "")}),
                            {}, 0, 0);
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

TEST(TerminalDialogue, ShowsOnlyTheFirstLineOfAValue) {
  // If .env has CR LF line ends, a value contains the lines after it, and these may hold secrets.
  TerminalDialogue dialogue(form({field("url", "https://a\r\nOPENAI_API_KEY=sk-secret")}), {}, 0, 0);
  dialogue.begin();
  EXPECT_EQ(dialogue.question(), "Field url［https://a …］> ");
}

TEST(TerminalDialogue, NumbersTheButtonsInsideAfterItsOwn) {
  TerminalDialogue dialogue(form({button("Show", "show"), button("Hide", "hide")}), {}, 0, 0);
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

TEST(TerminalDialogue, MarksHeadingsAndHintsInColour) {
  View heading = label("heading");
  heading.fontWeight = FontWeight::semibold;
  View hint = label("hint");
  hint.textColor = TextColor::secondary;
  TerminalDialogue dialogue(form({heading, hint}), {true}, 0, 0);
  EXPECT_NE(dialogue.begin().find("\n\n\033[1mheading\033[0m\n\033[2mhint\033[0m\n"), std::string::npos);
}

/// Returns the pixel rows that `text` draws on a dark screen: one byte (black or white) per pixel. A
/// character cell shows two pixels, one above the other.
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

TEST(TerminalDialogue, DrawsAQRCodeThatCanBeScanned) {
  for (const std::string& message :
       {std::string("a"),
        "kestrune://configure?apiUrl=https://relay.example.com&token=" + std::string(40, 't'),
        std::string(300, 'x')}) {
    for (const bool colored : {false, true}) {
      Image image{.width = 260, .height = 260, .bitmaps = PngImages({}).qrCode(message)};
      TerminalDialogue dialogue({.style = AlertStyle::informational,
                                 .messageText = "Code",
                                 .informativeText = "",
                                 .buttons = {"OK"},
                                 .accessoryView = View{.kind = ViewKind::image,
                                                       .image = std::make_shared<Image>(std::move(image))}},
                                {.enabled = colored}, 0, 0);
      std::string text = dialogue.begin();
      text.erase(0, text.find("[1] OK  \n") + 9);
      EXPECT_EQ(scanned(drawn(text)), message) << text;
    }
  }
}

/// Returns what a dialogue with a QR code of `message` prints first, on a terminal of the given size.
std::string beginOfCode(const std::string& message, int columns, int rows) {
  const Image image{.width = 260, .height = 260, .bitmaps = PngImages({}).qrCode(message)};
  const View picture{.kind = ViewKind::image, .image = std::make_shared<Image>(image)};
  return TerminalDialogue(form({picture, label("below")}), {}, columns, rows).begin();
}

TEST(TerminalDialogue, FitsAPairingCodeAndItsPromptInto80By24) {
  const std::string link =
      "kestrune://configure?apiUrl=https://relay.example.com&token=" + std::string(43, 't');
  for (const int rows : {24, 26, 0}) {
    std::string text = beginOfCode(link, 80, rows);
    text.erase(0, text.find("[2] Cancel  \n") + 13);
    const auto lines = std::count(text.begin(), text.end(), '\n');
    EXPECT_EQ(lines + 1, rows == 24 ? 24 : 26) << "level L only where level M has no room";
    EXPECT_EQ(scanned(drawn(text)), link);
  }
}

TEST(TerminalDialogue, RefusesACodeThatDoesNotFitWithTheSizeThatItNeeds) {
  EXPECT_NE(beginOfCode("a", 29, 16).find("█"), std::string::npos);
  for (const auto& [columns, rows] : {std::pair{28, 16}, {29, 15}, {28, 0}}) {
    const std::string text = beginOfCode("a", columns, rows);
    EXPECT_EQ(text.find("█"), std::string::npos);
    EXPECT_NE(text.find("（終端機太小，圖放不下：需要 29 欄、16 列。）\n"), std::string::npos) << text;
  }
}

}  // namespace
}  // namespace kestrune::testing
