#include <gtest/gtest.h>

#include "tests/rig/HostileTexts.h"
#include "text/Text.h"

namespace kestrune::testing {
namespace {

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
