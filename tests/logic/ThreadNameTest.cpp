#include <gtest/gtest.h>

#include "KestruneMenuClient/AppDelegate.h"
#include "tests/logic/Characters.h"

namespace kestrune::testing {
namespace {

TEST(ThreadName, IsTrimmedAndCut) {
  const std::string longest(34, 'x');
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"  ", ""},
      {"  a  b  ", "a  b"},
      {"修復（第二次）", "修復（第二次）"},
      {" \n\t　" + longest + " \u2028", longest},
      {"0123456789abcdefghijklmnopqrstuvwxy", "0123456789abcdefghijklmnopqrstu..."},
      {std::string(30, 'x') + " " + std::string(9, 'y'), std::string(30, 'x') + " ..."},
      {repeated("👍🏽", 34), repeated("👍🏽", 34)},
      {std::string(30, 'x') + "\x1B[31mred", std::string(30, 'x') + "red"},
      {repeated("👍🏽", 35), repeated("👍🏽", 31) + "..."},
  };
  for (const auto& [name, shown] : cases) EXPECT_EQ(AppDelegate::compactThreadName(name), shown) << name;
}

}  // namespace
}  // namespace kestrune::testing
