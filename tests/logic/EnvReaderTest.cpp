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

TEST_F(EnvReader, ReadsTheFileEachTimeAndWritesNothing) {
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

TEST_F(EnvReader, FindsNothingInAFileThatIsNotUtf8) {
  EXPECT_EQ(load("KEY=a\n# \xFF\n"), std::nullopt);
  EXPECT_EQ(load("\xED\xA0\x80\nKEY=a\n"), std::nullopt);
  EXPECT_EQ(load("# 註解 😀\nKEY=a\n"), "a");
}

TEST_F(EnvReader, FindsNothingInAFileAboveTheSizeLimit) {
  std::string text = "KEY=a\n" + std::string(FileManager::sizeLimit - 6, '#');
  EXPECT_EQ(FileManager::sizeLimit, 16U * 1024 * 1024);
  EXPECT_EQ(load(text), "a");
  EXPECT_EQ(load(text + "#"), std::nullopt);
}

TEST_F(EnvReader, FindsTheFirstLineThatBeginsWithTheKey) {
  for (const char* const text :
       {"", "\n\n", "KEY", "KEY\n=a", " KEY=a", "\tKEY=a", "KEY =a", "key=a", "KEYS=a", "MY_KEY=a", "#KEY=a",
        "# KEY=a", "export KEY=a", "X=KEY=a", "\uFEFFKEY=a", "X=1\r\nKEY=a\r\n", "\r\nKEY=a",
        "X=1\r\r\nKEY=a", "X=1\n\r\nKEY=a"}) {
    EXPECT_EQ(load(text), std::nullopt) << text;
  }
  for (const char* const text :
       {"KEY=a", "KEY=a\n", "\n\nKEY=a\n\n", "X=1\nKEY=a\nY=2\n", "X=1\n\n\n# comment\nKEY=a",
        "KEY=a\nKEY=second\n", " KEY=b\nKEY=a", "KEYS=b\nKEY=a", "X=1\r\n\nKEY=a", "KEY=a\r\n\nX=1"}) {
    EXPECT_EQ(load(text), "a") << text;
  }
  EXPECT_EQ(load("KEY=\nKEY=second\n"), "");
  EXPECT_EQ(load("KEY=a\r\nX=1\r\n"), "a\r\nX=1");
}

TEST_F(EnvReader, TrimsTheValue) {
  for (const std::string value : {"", "a  b\tc", "a=b", "=", "=a=", "\"a b\"", "' a '", "a # no comment",
                                  "a\\", "$HOME/${X}", "專案 😀", "\u200Ba"}) {
    EXPECT_EQ(load("KEY=" + value), value);
    EXPECT_EQ(load("X=1\nKEY=\t\u00A0\u3000 " + value + "\u2003 \u2028\u0085\v\f\nY=2"), value);
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
