#include "text/Text.h"

#include <gtest/gtest.h>
#include <utf8proc.h>

#include <set>
#include <vector>

#include "tests/logic/Characters.h"

namespace kestrune::testing {
namespace {

std::string encoded(char32_t character) {
  utf8proc_uint8_t bytes[4];
  const auto length = utf8proc_encode_char(static_cast<utf8proc_int32_t>(character), bytes);
  return {reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length)};
}

constexpr char32_t lastCharacter = 0x10FFFF;
constexpr bool isSurrogate(char32_t character) {
  return character >= 0xD800 && character <= 0xDFFF;
}

// --- white space and newlines

TEST(WhiteSpace, IsTheTabTheSpaceSeparatorsAndTheNewlines) {
  const std::set<char32_t> newlines{0x0A, 0x0B, 0x0C, 0x0D, 0x85, 0x2028, 0x2029};
  std::size_t count = 0;
  for (char32_t character = 0; character <= lastCharacter; ++character) {
    const bool expected = character == '\t' || newlines.count(character) == 1 ||
                          utf8proc_category(static_cast<utf8proc_int32_t>(character)) == UTF8PROC_CATEGORY_ZS;
    ASSERT_EQ(isWhiteSpaceOrNewline(character), expected) << "U+" << std::hex << unsigned(character);
    count += expected;
  }
  EXPECT_EQ(count, 25U);
}

TEST(Trimming, TakesExactlyWhiteSpaceAndNewlinesFromBothEnds) {
  for (char32_t character = 0; character <= lastCharacter; ++character) {
    if (isSurrogate(character)) continue;
    const std::string end = encoded(character);
    const std::string text = end + "a" + end;
    const bool space = isWhiteSpaceOrNewline(character);
    ASSERT_EQ(trimmed(text), space ? "a" : std::string_view(text)) << "U+" << std::hex << unsigned(character);
  }
}

TEST(Trimming, TakesAnyMixtureButNothingFromTheMiddle) {
  EXPECT_EQ(trimmed(" \t\r\n　\u00A0\u2028a 　\n b\v\f\u0085\u2029\u202F "), "a 　\n b");
  EXPECT_EQ(trimmed(" \t\r\n　\u2028\u0085"), "");
  EXPECT_EQ(trimmed(""), "");
}

TEST(Trimming, TakesIllFormedBytesForNoSpace) {
  for (const std::string_view text :
       {"\xff", "\x80", "\xe3\x80", "\xc2", "\x80\x80\x80\x80\x80", "a\xe3\x80\x80\x80", "a\xe2\x80"}) {
    EXPECT_EQ(trimmed(text), text);
    EXPECT_EQ(trimmed(" " + std::string(text) + "　"), text);
  }
}

// --- UTF-8

TEST(Utf8, EveryCharacterIsValidInItsOneForm) {
  for (char32_t character = 0; character <= lastCharacter; ++character) {
    if (isSurrogate(character)) continue;
    ASSERT_TRUE(isValidUtf8("a" + encoded(character) + "b")) << "U+" << std::hex << unsigned(character);
  }
  EXPECT_TRUE(isValidUtf8(""));
}

TEST(Utf8, IllFormedBytesAreNotValidWhereverTheyStand) {
  for (const std::string bytes :
       {"\x80", "\xbf", "\xc0\x80", "\xc1\xbf", "\xc2", "\xe0\x80\x80", "\xe0\x9f\xbf", "\xe4\xb8",
        "\xed\xa0\x80", "\xed\xbf\xbf", "\xf0\x8f\xbf\xbf", "\xf0\x9f\x98", "\xf4\x90\x80\x80",
        "\xf5\x80\x80\x80", "\xfe", "\xff"}) {
    EXPECT_FALSE(isValidUtf8(bytes));
    EXPECT_FALSE(isValidUtf8(bytes + "中"));
    EXPECT_FALSE(isValidUtf8("中" + bytes));
    EXPECT_FALSE(isValidUtf8("a" + bytes + "b"));
  }
}

// --- cutting by characters

TEST(Shortening, CountsCharactersAsAReaderDoes) {
  std::vector<std::string_view> characters(std::begin(singleCharacters), std::end(singleCharacters));
  characters.insert(characters.end(), {"\r\n", "\xff"});
  for (const std::string_view character : characters) {
    SCOPED_TRACE(character);
    EXPECT_EQ(shortened(repeated(character, 10), 10), repeated(character, 10));
    EXPECT_EQ(shortened(repeated(character, 11), 10), repeated(character, 7) + "...");
    EXPECT_EQ(shortened(repeated(character, 500), 10), repeated(character, 7) + "...");
  }
  EXPECT_EQ(shortened("", 10), "");
}

TEST(Shortening, OddRegionalIndicatorStandsAlone) {
  const std::string flags = repeated("🇹🇼", 9) + "🇹";
  EXPECT_EQ(shortened(flags, 10), flags);
  EXPECT_EQ(shortened(flags + "🇼🇹", 10), repeated("🇹🇼", 7) + "...");
}

TEST(Shortening, MarksBehindTheLastCharacterBelongToIt) {
  const std::string marks = repeated("\u0301", 100);
  EXPECT_EQ(shortened(repeated("x", 10) + marks, 10), repeated("x", 10) + marks);
  EXPECT_EQ(shortened(repeated("x", 7) + marks + repeated("x", 4), 10), repeated("x", 7) + marks + "...");
}

// --- replacing

TEST(Replacing, TakesEachOccurrenceFromLeftToRight) {
  EXPECT_EQ(replacingAll("aXbXX", "X", "--"), "a--b----");
  EXPECT_EQ(replacingAll("aaa", "aa", "b"), "ba");
  EXPECT_EQ(replacingAll("abc", "x", "y"), "abc");
  EXPECT_EQ(replacingAll("", "x", "y"), "");
  EXPECT_EQ(replacingAll("xx", "x", ""), "");
  EXPECT_EQ(replacingAll("'", "'", "'\"'\"'"), "'\"'\"'");
}

// --- lines

using Lines = std::vector<std::string>;

Lines linesOf(std::string_view text) {
  Lines lines;
  LineSplitter splitter(text);
  for (std::string_view line; splitter.next(line);) lines.emplace_back(line);
  return lines;
}

const std::string newlines[] = {"\n", "\v", "\f", "\r", "\r\n", "\u0085", "\u2028", "\u2029"};

TEST(LineSplitter, EndsALineAtEveryNewline) {
  for (const std::string& newline : newlines) {
    EXPECT_EQ(linesOf(newline), (Lines{"", ""}));
    EXPECT_EQ(linesOf("a" + newline + newline + "b" + newline), (Lines{"a", "", "b", ""}));
    EXPECT_EQ(linesOf("中" + newline + "\u00A0文"), (Lines{"中", "\u00A0文"}));
  }
}

TEST(LineSplitter, TakesAnyTwoNewlinesForTwoExceptCarriageReturnAndLineFeed) {
  for (const std::string& first : newlines) {
    for (const std::string& second : newlines) {
      const bool one = first == "\r" && second == "\n";
      EXPECT_EQ(linesOf("a" + first + second + "b"), one ? (Lines{"a", "b"}) : (Lines{"a", "", "b"}));
    }
  }
  EXPECT_EQ(linesOf("a\r\r\nb"), (Lines{"a", "", "b"}));
  EXPECT_EQ(linesOf("a\n\r\nb"), (Lines{"a", "", "b"}));
}

TEST(LineSplitter, EndsNoLineAtWhatOnlyLooksLikeANewline) {
  for (const char* text : {"a\tb", "a\u00A0b", "a\u2027b", "a\u202Ab", "a\u001Cb", "a\u001Eb", "a\u0084b",
                           "a\u0086b", "a\\nb", "a中b", "a", " "}) {
    EXPECT_EQ(linesOf(text), Lines{text});
  }
}

TEST(LineSplitter, EndsNoLineAtIllFormedBytes) {
  for (const char* text : {"a\xc2", "a\xc2z", "a\xe2\x80", "a\xe2\x80z", "a\x85z", "\xff"}) {
    EXPECT_EQ(linesOf(text), Lines{text});
  }
  EXPECT_EQ(linesOf("a\xc2\nb\xe2\x80\nc"), (Lines{"a\xc2", "b\xe2\x80", "c"}));
  EXPECT_EQ(linesOf(std::string_view("a\0b\nc", 5)), (Lines{std::string("a\0b", 3), "c"}));
}

TEST(LineSplitter, StaysAtTheEnd) {
  LineSplitter splitter("a\n");
  std::string_view line;
  EXPECT_TRUE(splitter.next(line));
  EXPECT_TRUE(splitter.next(line));
  EXPECT_FALSE(splitter.next(line));
  EXPECT_FALSE(splitter.next(line));
  EXPECT_EQ(linesOf(""), Lines{});
}

}  // namespace
}  // namespace kestrune::testing
