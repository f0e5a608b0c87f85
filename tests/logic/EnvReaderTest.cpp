#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

using Value = std::optional<std::string>;

struct EnvReader : ControllerTest {
  Value load(const std::string& text, const char* key = "KEY") {
    env() = text;
    return controller->loadEnvValue(key);
  }
};

TEST_F(EnvReader, ReadsTheFileOfTheRepositoryAnewEachTimeAndTouchesNothing) {
  EXPECT_EQ(load("KEY=a"), "a");
  EXPECT_EQ(load("KEY=b"), "b");
  machine.fileManager.files.clear();
  machine.fileManager.files["/home/u/backend/.env.example"] = "KEY=template";
  EXPECT_EQ(controller->loadEnvValue("KEY"), std::nullopt);
  machine.fileManager.unreadable.insert(envFile);
  EXPECT_EQ(controller->loadEnvValue("KEY"), std::nullopt);
  EXPECT_EQ(machine.fileManager.asked, std::vector<std::string>(4, "/home/u/backend/.env"));
  EXPECT_EQ(newCalls(), CallLog{});
}

TEST_F(EnvReader, FindsNothingInAFileWithAnIllFormedByteAnywhere) {
  EXPECT_EQ(load("KEY=a\n# \xFF\n"), std::nullopt);
  EXPECT_EQ(load("\xED\xA0\x80\nKEY=a\n"), std::nullopt);
  EXPECT_EQ(load("# 註解 😀\nKEY=a\n"), "a");
}

TEST_F(EnvReader, FindsNothingInAFileOfMoreThanSixteenMebibytes) {
  std::string text = "KEY=a\n" + std::string(FileManager::sizeLimit - 6, '#');
  EXPECT_EQ(FileManager::sizeLimit, 16U * 1024 * 1024);
  EXPECT_EQ(load(text), "a");
  EXPECT_EQ(load(text + "#"), std::nullopt);
}

TEST_F(EnvReader, FindsTheLineThatBeginsWithTheKey) {
  struct Case {
    const char* text;
    Value value;
  };
  const Case cases[] = {
      {"", std::nullopt},
      {"\n\n", std::nullopt},
      {"KEY=a", "a"},
      {"KEY=a\n", "a"},
      {"\n\nKEY=a\n\n", "a"},
      {"X=1\nKEY=a\nY=2\n", "a"},
      {"X=1\n\n\n# comment\nKEY=a", "a"},
      {"KEY=first\nKEY=second\n", "first"},
      {"KEY=\nKEY=second\n", ""},
      {"KEY", std::nullopt},
      {"KEY\n=a", std::nullopt},
      {" KEY=a", std::nullopt},
      {"\tKEY=a", std::nullopt},
      {"KEY =a", std::nullopt},
      {"key=a", std::nullopt},
      {"Key=a", std::nullopt},
      {"KEYS=a", std::nullopt},
      {"MY_KEY=a", std::nullopt},
      {"#KEY=a", std::nullopt},
      {"# KEY=a", std::nullopt},
      {"export KEY=a", std::nullopt},
      {"X=KEY=a", std::nullopt},
      {"\uFEFFKEY=a", std::nullopt},
      {" KEY=a\nKEY=b", "b"},
      {"KEYS=a\nKEY=b", "b"},
      {"KEY=a\r\nX=1\r\n", "a\r\nX=1"},
      {"X=1\r\nKEY=a\r\n", std::nullopt},
      {"\r\nKEY=a", std::nullopt},
      {"X=1\r\r\nKEY=a", std::nullopt},
      {"X=1\r\n\nKEY=a", "a"},
      {"KEY=a\r\n\nX=1", "a"},
      {"X=1\n\r\nKEY=a", std::nullopt},
  };
  for (const Case& each : cases) EXPECT_EQ(load(each.text), each.value) << each.text;
}

TEST_F(EnvReader, ValueIsTheRestOfTheLineWithoutTheSpaceAroundIt) {
  struct Case {
    const char* rest;
    const char* value;
  };
  const Case cases[] = {
      {"", ""},
      {"   ", ""},
      {"\u3000\t", ""},
      {"  a  b\tc  ", "a  b\tc"},
      {"\t\u00A0\u3000a\u2003 \u2028\u0085\v\f", "a"},
      {"a=b", "a=b"},
      {"=", "="},
      {"=a=", "=a="},
      {"\"a b\"", "\"a b\""},
      {"' a '", "' a '"},
      {"a # no comment", "a # no comment"},
      {"a\\", "a\\"},
      {"$HOME/${X}", "$HOME/${X}"},
      {"專案 😀", "專案 😀"},
      {"\u200Ba", "\u200Ba"},
  };
  for (const Case& each : cases) {
    EXPECT_EQ(load(std::string("KEY=") + each.rest), each.value) << each.rest;
    EXPECT_EQ(load(std::string("X=1\nKEY=") + each.rest + "\nY=2"), each.value) << each.rest;
  }
}

TEST_F(EnvReader, OnlyALineFeedEndsALine) {
  for (const char* const other : {"\v", "\f", "\r", "\u0085", "\u2028", "\u2029"}) {
    EXPECT_EQ(load(std::string("X=1") + other + "KEY=a"), std::nullopt);
    EXPECT_EQ(load(std::string("KEY=a") + other + "b\nX=1"), std::string("a") + other + "b");
  }
}

}  // namespace
}  // namespace kestrune::testing
