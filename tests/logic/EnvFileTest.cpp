#include "tests/logic/ControllerTest.h"
#include "tests/rig/Memory.h"
#include "text/Text.h"

namespace kestrune::testing {
namespace {

struct EnvReader : ControllerTest {
  std::optional<std::string> load(const std::string& text, const char* key = "KEY") {
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

using Values = std::map<std::string, std::string>;

struct EnvWriter : ControllerTest {
  static constexpr auto templateFile = "/home/u/backend/.env.example";
  const Result<std::string> saved{"設定已保存到 /home/u/backend/.env"};
  const Failure fullDisk{"No space left on device"};

  /// Replaces the contents of the file with `text`, saves `values`, and returns the new contents.
  std::string after(const std::string& text, const Values& values) {
    env() = text;
    EXPECT_EQ(controller->saveEnvValues(values), saved);
    return env();
  }
  /// Removes the file, saves `values`, and returns the contents of the new file.
  std::string afterNone(const Values& values) {
    machine.fileManager.files.erase(envFile);
    EXPECT_EQ(controller->saveEnvValues(values), saved);
    return env();
  }
};

TEST_F(EnvWriter, RewritesInPlaceAndKeepsEveryOtherLine) {
  const std::pair<const char*, const char*> cases[] = {
      {"KEY=old", "KEY=new"},
      {"KEY=old\n", "KEY=new\n"},
      {"KEY=\n", "KEY=new\n"},
      {"# comment = 1\n\nX=1\nKEY=old\n  indented = 2 \n\n\n",
       "# comment = 1\n\nX=1\nKEY=new\n  indented = 2 \n\n\n"},
      {"KEY=a=b\nX=c=d", "KEY=new\nX=c=d"},
      {"KEY=a\nX=1\nKEY=b\n", "KEY=new\nX=1\nKEY=new\n"},
      {"KEY= old \nKEY\n", "KEY=new\nKEY\n"},
      {"KEY=old\n=x\n==\n", "KEY=new\n=x\n==\n"},
      {"\nKEY=old", "\nKEY=new"},
      {"X=1\r\nKEY=old\r\n", "X=1\n\nKEY=new\n\n"},
      {"KEY=old\nX=專案 😀 e\u0301", "KEY=new\nX=專案 😀 e\u0301"},
  };
  for (const auto& [before, expected] : cases) EXPECT_EQ(after(before, {{"KEY", "new"}}), expected) << before;
}

TEST_F(EnvWriter, AppendsAKeyThatNoLineDefines) {
  for (const std::string line : {"X=1", "X=1\n ", "", " KEY=old", "\tKEY=old", "KEY =old", "key=old",
                                 "#KEY=old", "export KEY=old", "KEY", "X=KEY=1", "\uFEFFKEY=old"}) {
    EXPECT_EQ(after(line + "\n", {{"KEY", "new"}}), line + "\n\nKEY=new");
  }
  EXPECT_EQ(after("X=1", {{"KEY", "new"}}), "X=1\n\nKEY=new");
  EXPECT_EQ(after("X=1\n\n", {{"KEY", "new"}}), "X=1\n\n\nKEY=new");
  EXPECT_EQ(after("X=1\r\n", {{"KEY", "new"}}), "X=1\n\n\nKEY=new");
  EXPECT_EQ(after("", {{"KEY", "new"}}), "\nKEY=new");
}

TEST_F(EnvWriter, AppendsMissingKeysInAscendingOrder) {
  EXPECT_EQ(after("X=1\n", {{"B", "2"}, {"A", "9"}}), "X=1\n\nA=9\n\nB=2");
  EXPECT_EQ(after("X=1", {{"a", "4"}, {"_", "3"}, {"Z", "2"}, {"É", "5"}, {"AB", "1"}, {"A", "0"}}),
            "X=1\n\nA=0\n\nAB=1\n\nZ=2\n\n_=3\n\na=4\n\nÉ=5");
  EXPECT_EQ(after("C=old\nA=old\n", {{"A", "1"}, {"B", "2"}, {"C", "3"}}), "C=3\nA=1\n\nB=2");
  EXPECT_EQ(after("X=1\n\n# y\n", {}), "X=1\n\n# y\n");
}

TEST_F(EnvWriter, CreatesAFileWithoutATemplate) {
  EXPECT_EQ(afterNone({{"B", "2"}, {"A", "1"}}), "A=1\n\nB=2");
  EXPECT_EQ(afterNone({{"A", "1"}}), "A=1");
  EXPECT_EQ(afterNone({}), "");
}

TEST_F(EnvWriter, EveryNewlineBecomesALineFeed) {
  for (const char* const separator : {"\n", "\v", "\f", "\r", "\u0085", "\u2028", "\u2029"}) {
    const std::string text =
        std::string("X=1") + separator + "KEY=old" + separator + separator + "Y=2" + separator;
    EXPECT_EQ(after(text, {{"KEY", "new"}}), "X=1\nKEY=new\n\nY=2\n");
  }
}

TEST_F(EnvWriter, WritesValuesUnchanged) {
  for (const char* const value : {"", " a ", "\"a\"", "a=b", "=", "#", "$HOME", "\\", "專案 😀"}) {
    EXPECT_EQ(after("KEY=old\n", {{"KEY", value}}), std::string("KEY=") + value + "\n");
    EXPECT_EQ(afterNone({{"KEY", value}}), std::string("KEY=") + value);
    EXPECT_EQ(controller->loadEnvValue("KEY"), trimmed(value));
  }
}

TEST_F(EnvWriter, UsesTheTemplateForAMissingOrUnreadableFile) {
  const std::string text = "# 範本\r\nB=\n\nKEY=change me\n";
  const std::string expected = "# 範本\n\nB=\n\nKEY=new\n\nA=1";
  machine.fileManager.files[templateFile] = text;
  EXPECT_EQ(afterNone({{"KEY", "new"}, {"A", "1"}}), expected);
  EXPECT_EQ(newCalls(), CallLog{"write /home/u/backend/.env"});
  EXPECT_EQ(machine.fileManager.asked, (std::vector<std::string>{envFile, templateFile}));
  EXPECT_EQ(after("\xFF=1\nX=1\n", {{"KEY", "new"}, {"A", "1"}}), expected);
  EXPECT_EQ(machine.fileManager.files.at(templateFile), text);
  EXPECT_EQ(after("", {{"KEY", "new"}}), "\nKEY=new") << "there is a file";
  machine.fileManager.files[templateFile] = "TEMPLATE=\xFF\n";
  EXPECT_EQ(afterNone({{"KEY", "new"}}), "KEY=new");
  machine.fileManager.files.erase(templateFile);
  machine.fileManager.unreadable.insert(templateFile);
  EXPECT_EQ(afterNone({{"KEY", "new"}}), "KEY=new");
}

TEST_F(EnvWriter, KeepsAnUnreadableFile) {
  const CallLog replacing{"keep unreadable /home/u/backend/.env", "write /home/u/backend/.env"};
  machine.fileManager.unreadable.insert(envFile);
  EXPECT_EQ(controller->saveEnvValues({{"KEY", "new"}}), saved);
  EXPECT_EQ(newCalls(), replacing);
  EXPECT_EQ(env(), "KEY=new");
  EXPECT_EQ(after("KEY=\xFF", {{"KEY", "new"}}), "KEY=new");
  EXPECT_EQ(newCalls(), replacing);
  machine.fileManager.keepError = fullDisk.reason;
  env() = "KEY=\xFF";
  EXPECT_EQ(controller->saveEnvValues({{"KEY", "new"}}), fullDisk);
  EXPECT_EQ(newCalls(), CallLog{replacing[0]}) << "and not replaced when it cannot be kept";
  EXPECT_EQ(env(), "KEY=\xFF");
}

TEST_F(EnvWriter, NotifiesWhereTheUnreadableFileIsKept) {
  env() = "OTHER=lost\nKEY=\xFF";
  const EnvValues shown{{"KEY", ""}};
  EXPECT_EQ(controller->saveEnvValues({{"KEY", "new"}}, &shown), saved);
  const std::string kept = std::string(envFile) + ".unreadable";
  EXPECT_EQ(machine.notifications.posted,
            (std::vector{Notification{.identifier = kept,
                                      .title = "原有設定已保留",
                                      .body = "無法讀取 .env，它已被新檔案取代，原檔案保留在 " + kept,
                                      .lasting = true}}));
  for (const bool isFirst : {false, true}) {
    if (isFirst) machine.fileManager.files.erase(envFile);
    EXPECT_EQ(controller->saveEnvValues({{"KEY", "new"}}, &shown), saved);
  }
  env() = "KEY=\xFF";
  EXPECT_EQ(controller->saveEnvValues({{"KEY", "new"}}), saved);
  EXPECT_EQ(machine.notifications.posted.size(), 1U) << "only for the dialog, and only for a kept file";
}

TEST_F(EnvWriter, LeavesTheFileAfterATemporaryReadError) {
  machine.fileManager.readError = "Too many open files";
  env() = "KEY=old";
  EXPECT_EQ(controller->saveEnvValues({{"KEY", "new"}}), Failure{"Too many open files"});
  EXPECT_EQ(newCalls(), CallLog{});
}

TEST_F(EnvWriter, MakesNoFileAfterATemporaryReadErrorOfTheTemplate) {
  machine.fileManager.files.clear();
  machine.fileManager.files[templateFile] = "KEY=\nOTHER=needed";
  machine.fileManager.whenRead = [this] {
    if (machine.fileManager.asked.back() == templateFile)
      machine.fileManager.readError = "Input/output error";
  };
  EXPECT_EQ(controller->saveEnvValues({{"KEY", "new"}}), Failure{"Input/output error"});
  EXPECT_EQ(newCalls(), CallLog{});
}

TEST_F(EnvWriter, LeavesAFileAboveTheSizeLimit) {
  const std::string text = "KEY=old\n" + std::string(FileManager::sizeLimit - 8, '#');
  const std::string larger = text + "#";
  machine.fileManager.files[templateFile] = "KEY=";
  env() = larger;
  EXPECT_EQ(controller->saveEnvValues({{"KEY", "new"}}),
            Failure{"/home/u/backend/.env 超過 16 MiB，無法讀取。設定沒有保存。"});
  EXPECT_EQ(newCalls(), CallLog{});
  EXPECT_TRUE(env() == larger);
  EXPECT_TRUE(after(text, {{"KEY", "new"}}).starts_with("KEY=new\n##"));
}

TEST_F(EnvWriter, NeverWritesAFileAboveTheSizeLimit) {
  const std::string text = "KEY=old\n" + std::string(FileManager::sizeLimit - 8, '#');
  const Failure tooLarge{"保存後 /home/u/backend/.env 會超過 16 MiB。設定沒有保存。"};
  env() = text;
  EXPECT_EQ(controller->saveEnvValues({{"KEY", "newer"}}), tooLarge);
  EXPECT_TRUE(env() == text);
  // A short file can become too large, because each of its lines gets the long value.
  std::string lines;
  for (int i = 0; i < 1000; ++i) lines += "KEY=\n";
  env() = lines;
  EXPECT_EQ(controller->saveEnvValues({{"KEY", std::string(20'000, 'x')}}), tooLarge);
  EXPECT_EQ(env(), lines);
  EXPECT_EQ(newCalls(), CallLog{});
}

TEST_F(EnvWriter, NeedsLessThanFourTimesTheMemoryOfTheFile) {
  std::string lines(std::size_t{512} << 10, '\n');
  while (lines.size() < std::size_t{1} << 20) lines += "a\nKEY=\n\r\n\u2028";
  env() = lines;
  EXPECT_LT(peakMemoryOf([this] { controller->saveEnvValues({{"KEY", ""}}); }), 4 * lines.size());
  EXPECT_LT(peakMemoryOf([this] { controller->loadEnvValue("NONE"); }), 4 * lines.size());
}

TEST_F(EnvWriter, FailedWriteLeavesTheFileAndGivesTheReason) {
  machine.fileManager.writeError = fullDisk.reason;
  env() = "KEY=old";
  EXPECT_EQ(controller->saveEnvValues({{"KEY", "new"}}), fullDisk);
  EXPECT_EQ(controller->loadEnvValue("KEY"), "old");
  machine.fileManager.files.clear();
  EXPECT_EQ(controller->saveEnvValues({{"KEY", "new"}}), fullDisk);
  EXPECT_EQ(machine.fileManager.files.size(), 0U);
  machine.fileManager.writeError = "";
  EXPECT_EQ(controller->saveEnvValues({{"KEY", "new"}}), Failure{""});
}

}  // namespace
}  // namespace kestrune::testing
