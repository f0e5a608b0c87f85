#include <gtest/gtest.h>

#include <vector>

#include "text/Text.h"

namespace kestrune::testing {
namespace {

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
