#include <gtest/gtest.h>

#include "KestruneMenuClient/AppDelegate.h"
#include "tests/logic/Characters.h"

namespace kestrune::testing {
namespace {

TEST(ThreadName, OfThirtyFourCharactersIsShownWhole) {
  EXPECT_EQ(AppDelegate::compactThreadName(std::string(34, 'x')), std::string(34, 'x'));
}

TEST(ThreadName, OfThirtyFiveCharactersKeepsTheFirstThirtyOne) {
  EXPECT_EQ(AppDelegate::compactThreadName("0123456789abcdefghijklmnopqrstuvwxy"),
            "0123456789abcdefghijklmnopqrstu...");
}

TEST(ThreadName, LosesTheSpaceAroundItBeforeItIsCounted) {
  EXPECT_EQ(AppDelegate::compactThreadName(" \n\t　" + std::string(34, 'x') + " \u2028"),
            std::string(34, 'x'));
  EXPECT_EQ(AppDelegate::compactThreadName("  a  b  "), "a  b");
  EXPECT_EQ(AppDelegate::compactThreadName("  "), "");
  EXPECT_EQ(AppDelegate::compactThreadName(""), "");
}

TEST(ThreadName, KeepsWhatStandsInParentheses) {
  EXPECT_EQ(AppDelegate::compactThreadName("修復（第二次）"), "修復（第二次）");
}

TEST(ThreadName, SpaceWhereItIsCutStays) {
  EXPECT_EQ(AppDelegate::compactThreadName(std::string(30, 'x') + " " + std::string(9, 'y')),
            std::string(30, 'x') + " ...");
}

TEST(ThreadName, CountsCharactersAsAReaderDoes) {
  for (const std::string_view character : singleCharacters) {
    EXPECT_EQ(AppDelegate::compactThreadName(repeated(character, 34)), repeated(character, 34));
    EXPECT_EQ(AppDelegate::compactThreadName(repeated(character, 35)), repeated(character, 31) + "...");
  }
}

}  // namespace
}  // namespace kestrune::testing
