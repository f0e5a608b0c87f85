#include <gtest/gtest.h>

#include "tests/logic/Characters.h"
#include "tests/rig/HostileTexts.h"
#include "text/Text.h"

namespace kestrune::testing {
namespace {

TEST(DisplayRow, LeavesWhatCanBeRead) {
  for (const char* text : {"", " ", "🟢 連線狀態：已連線", "my_project & <co>",
                           "保持 Mac 醒著（防止斷線）", "a  b ", "\u00A0　"}) {
    EXPECT_EQ(displayRow(text), text);
  }
  for (const std::string_view character : singleCharacters) EXPECT_EQ(displayRow(character), character);
}

TEST(DisplayRow, HasABlankForEachCharacterThatIsNotToBeSeen) {
  for (int code = 0; code < 0xA0; ++code) {
    if (code >= 0x20 && code < 0x7F) continue;
    std::string text = "a";
    if (code >= 0x80) text += '\xC2';
    text += static_cast<char>(code);
    EXPECT_EQ(displayRow(text + "漢"), "a 漢") << code;
  }
  for (const char* turn : {"\u202A", "\u202E", "\u2066", "\u2069", "\u2028", "\u2029", "\xff"}) {
    EXPECT_EQ(displayRow(std::string("a") + turn + "b"), "a b");
  }
  EXPECT_EQ(displayRow("a\r\nb\xe4\xb8"), "a  b  ");
}

TEST(DisplayRow, HasNoEscapeSequence) {
  for (const char* const sequence :
       {"\x1b[31m", "\x1b[38;5;231m", "\x1b[?25l", "\x1b[1 q", "\u009b2J", "\x1b]0;title\a",
        "\x1b]8;;http://x.example/漢\x1b\\", "\u009d2;title\u009c", "\x1bP+q544e\x1b\\", "\x1b_a\x1b\\",
        "\x1b^a\x1b\\", "\x1bXa\u009c", "\x1b(B", "\0337", "\x1b\\", "\x1bM", "\x1b#8"}) {
    EXPECT_EQ(displayRow(sequence), "") << sequence + 1;
    EXPECT_EQ(displayRow("a" + std::string(sequence) + "b"), "ab") << sequence + 1;
  }
}

TEST(DisplayRow, KeepsWhatStandsBehindABrokenEscapeSequence) {
  EXPECT_EQ(displayRow("a\x1b"), "a ");
  EXPECT_EQ(displayRow("a\x1b 漢"), "a  漢");
  EXPECT_EQ(displayRow("a\x1b[3"), "a [3");
  EXPECT_EQ(displayRow("a\x1b[3漢"), "a [3漢");
  EXPECT_EQ(displayRow("a\x1b[3\x1b[31mb"), "a [3b");
  EXPECT_EQ(displayRow("a\x1b]0;title"), "a ]0;title");
  EXPECT_EQ(displayRow("a\x1b]0;title\nb\a"), "a ]0;title b ");
}

TEST(DisplayRow, OfMoreThanTwoHundredCharactersIsCut) {
  for (const std::string_view character : {"x", "中", "🇹🇼", "👨\u200D👩\u200D👧\u200D👦"}) {
    EXPECT_EQ(displayRow(repeated(character, 200)), repeated(character, 200));
    EXPECT_EQ(displayRow(repeated(character, 201)), repeated(character, 197) + "...");
    EXPECT_EQ(displayRow(repeated(character, 1 << 17)), repeated(character, 197) + "...");
  }
}

TEST(DisplayRow, OfOneEndlessCharacterIsCutBetweenItsCodes) {
  const std::string row = displayRow("x" + repeated("\u0301", 1 << 18));
  EXPECT_LT(row.size(), 1U << 14);
  EXPECT_TRUE(isValidUtf8(row));
  EXPECT_EQ(row.rfind("x\u0301", 0), 0U);
}

// A D-Bus library refuses a whole message, such as that with all rows of the menu, for one of them.
// A D-Bus library refuses a whole message, such as that with all rows of the menu, for a noncharacter.
TEST(ReadableText, HasNoCharacterThatCommandsAScreenAndLacksNoOther) {
  for (utf8proc_int32_t character = 0; character <= 0x10FFFF; ++character) {
    utf8proc_uint8_t bytes[4];
    const auto length = utf8proc_encode_char(character, bytes);
    const std::string text(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
    if (character >= 0xD800 && character <= 0xDFFF) {
      ASSERT_EQ(faultOf(withoutControls(text)), "") << character;
    } else {
      ASSERT_EQ(withoutControls(text), commandsAScreen(character) ? " " : text) << character;
    }
  }
}

TEST(ReadableText, OfAnyHostileTextCanOnlyBeRead) {
  for (const auto& each : hostileTexts()) {
    EXPECT_EQ(faultOf(withoutControls(each.text)), "") << each.name;
    EXPECT_EQ(faultOf(displayRow(each.text)), "") << each.name;
  }
}

TEST(ReadableText, KeepsItsLengthButIsCutBetweenCharacterCodes) {
  EXPECT_EQ(withoutControls("a\u0007b\u202Ec\n" + std::string(1000, 'x')), "a b c " + std::string(1000, 'x'));
  EXPECT_EQ(withinBytes("中文", 7), "中文");
  EXPECT_EQ(withinBytes("中文", 6), "中文");
  EXPECT_EQ(withinBytes("中文", 5), "中");
  EXPECT_EQ(withinBytes("中文", 3), "中");
  EXPECT_EQ(withinBytes("中文", 2), "");
  EXPECT_EQ(withinBytes("abc", 2), "ab");
  EXPECT_EQ(withinBytes("", 2), "");
}

}  // namespace
}  // namespace kestrune::testing
