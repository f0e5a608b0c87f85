#include <nlohmann/json.hpp>

#include "adapters/files/Files.h"
#include "adapters/files/PreferencesFile.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/FileTest.h"
#include "tests/rig/ResourceLimit.h"
#include "tests/rig/SignalState.h"
#include "tests/rig/StandardErrorText.h"

namespace kestrune::testing {
namespace {

using nlohmann::json;

struct Preferences : FileTest {
  SystemFileManager files{"/home/u"};
  const std::string path = folder.file("preferences.json");
  PreferencesFile preferences{files, path};

  json written() const { return json::parse(contentsOf(path)); }
  void put(const std::string& contents) const { testing::put(path, contents); }
};

TEST_F(Preferences, FileIsReadAtEachCall) {
  PreferencesFile other(files, path);
  preferences.setBool("flag", true);
  EXPECT_EQ(other.boolForKey("flag"), true);
  other.setBool("flag", false);
  other.setString("text", "from the other");
  EXPECT_EQ(preferences.boolForKey("flag"), false);
  EXPECT_EQ(preferences.stringForKey("text"), "from the other");
  fs::remove(path);
  EXPECT_EQ(preferences.boolForKey("flag"), std::nullopt);
}

TEST_F(Preferences, ValuesOfOtherTypesAreAbsent) {
  put(R"({"a": 1, "b": null, "c": [true], "d": {"x": "y"}, "e": "true", "f": 0})");
  for (const std::string key : {"a", "b", "c", "d", "e", "f"}) {
    EXPECT_EQ(preferences.boolForKey(key), std::nullopt) << key;
  }
  for (const std::string key : {"a", "b", "c", "d", "f"}) {
    EXPECT_EQ(preferences.stringForKey(key), std::nullopt) << key;
  }
}

TEST_F(Preferences, UnknownKeysAreKept) {
  put(R"({"theirs": {"deep": [1, 2.5, null, "文"]}, "flag": true})");
  preferences.setBool("flag", false);
  EXPECT_EQ(written(), json::parse(R"({"theirs": {"deep": [1, 2.5, null, "文"]}, "flag": false})"));
}

TEST_F(Preferences, SymbolicLinkAndModeAreKept) {
  const std::string target = folder.file("target");
  testing::put(target, R"({"theirs": 1})", 0640);
  fs::create_directories(fs::path(path).parent_path());
  fs::create_symlink(target, path);
  preferences.setBool("flag", true);
  EXPECT_TRUE(fs::is_symlink(path));
  EXPECT_EQ(json::parse(contentsOf(target)), (json{{"theirs", 1}, {"flag", true}}));
  EXPECT_EQ(modeOf(target), 0640U);
}

TEST_F(Preferences, FileAndFoldersArePrivate) {
  const std::string deep = folder.file("a/b/preferences.json");
  PreferencesFile(files, deep).setBool("flag", true);
  EXPECT_EQ(modeOf(deep), 0600U);
  EXPECT_EQ(modeOf(folder.file("a/b")), 0700U);
  EXPECT_EQ(modeOf(folder.file("a")), 0700U);
}

TEST_F(Preferences, NextWriteKeepsADamagedFileAside) {
  const std::string deep = "{\"theirs\": " + std::string(500'000, '[') + std::string(500'000, ']') + "}";
  for (const auto& damage : std::vector<std::string>{
           "\x7f\x45LF\1\2\3", "", R"(["flag", true])", R"({"flag": true, "text": "t)",
           "{\"flag\": true, \"text\": \"\xff\"}", deep, std::string(10'000'000, '\0')}) {
    SCOPED_TRACE(damage.substr(0, 30));
    put(damage);
    EXPECT_EQ(preferences.boolForKey("flag"), std::nullopt);
    EXPECT_EQ(preferences.stringForKey("text"), std::nullopt);
    EXPECT_TRUE(contentsOf(path) == damage) << "reading must change nothing";
    preferences.setBool("other", true);
    EXPECT_TRUE(contentsOf(path + ".unreadable") == damage);
    EXPECT_EQ(written(), (json{{"other", true}}));
    fs::remove(path + ".unreadable");
  }
}

TEST_F(Preferences, LastValuesHoldWhileTheFileCannotBeOpened) {
  put(R"({"flag": false})");
  EXPECT_EQ(preferences.boolForKey("flag"), false);
  preferences.setString("text", "t");
  {
    const ResourceLimit noDescriptors(RLIMIT_NOFILE, 0);
    EXPECT_EQ(preferences.boolForKey("flag"), false);
    EXPECT_EQ(preferences.stringForKey("text"), "t");
  }
  put(R"({"flag": true})");
  EXPECT_EQ(preferences.boolForKey("flag"), true);
  fs::remove(path);
  EXPECT_EQ(preferences.boolForKey("flag"), std::nullopt);
  const ResourceLimit noDescriptors(RLIMIT_NOFILE, 0);
  EXPECT_EQ(preferences.boolForKey("flag"), std::nullopt);
}

/// Preferences that cannot be saved: a file has the name of their folder, so the folder cannot be created.
struct UnwritablePreferences : Preferences {
  const std::string place = folder.file("place");
  PreferencesFile unwritable{files, place + "/preferences.json"};

  UnwritablePreferences() { std::ofstream(place) << "a file"; }
};

TEST_F(UnwritablePreferences, NextSuccessfulWriteSavesAllValues) {
  {
    const StandardErrorText errors;
    unwritable.setBool("flag", true);
    unwritable.setBool("flag", false);
    EXPECT_NE(errors.text().find("cannot write the preferences " + place), std::string::npos);
  }
  fs::remove(place);
  EXPECT_EQ(unwritable.boolForKey("flag"), false);
  unwritable.setString("text", "t");
  EXPECT_EQ(json::parse(contentsOf(place + "/preferences.json")), (json{{"flag", false}, {"text", "t"}}));
  // Now that the values are saved, changes by other processes take effect again.
  PreferencesFile(files, place + "/preferences.json").setBool("flag", true);
  EXPECT_EQ(unwritable.boolForKey("flag"), true);
}

TEST_F(Preferences, NewValuesHoldWhenTheDiskIsFull) {
  for (const std::string old : {R"({"flag": true})", "damage"}) {
    put(old);
    {
      const SignalState restored;
      std::signal(SIGXFSZ, SIG_IGN);
      const ResourceLimit noRoom(RLIMIT_FSIZE, 0);
      preferences.setBool("flag", false);
      EXPECT_EQ(preferences.boolForKey("flag"), false);
    }
    EXPECT_EQ(contentsOf(path), old);
    EXPECT_EQ(names(), Names{"preferences.json"});
    preferences.setString("text", "t");
    EXPECT_EQ(written(), (json{{"flag", false}, {"text", "t"}}));
  }
  EXPECT_EQ(contentsOf(path + ".unreadable"), "damage");
}

struct FakeStore {
  FakeUserDefaults store;
};
struct FileStore {
  ScratchFolder folder;
  SystemFileManager files{"/home/u"};
  PreferencesFile store{files, folder.file("preferences.json")};
};
template <typename Store>
struct UserDefaultsContract : ::testing::Test, Store {};
using Stores = ::testing::Types<FakeStore, FileStore>;
TYPED_TEST_SUITE(UserDefaultsContract, Stores);

TYPED_TEST(UserDefaultsContract, LastValueOfAnyKeyIsKept) {
  for (const std::string key : {"", "a/b", "Über", "a.b"}) {
    EXPECT_EQ(this->store.boolForKey(key), std::nullopt);
    EXPECT_EQ(this->store.stringForKey(key), std::nullopt);
    for (const bool value : {true, false}) {
      this->store.setBool(key, value);
      EXPECT_EQ(this->store.boolForKey(key), value);
      EXPECT_EQ(this->store.stringForKey(key), std::nullopt);
    }
    for (const std::string text : {"true", "", "official_chatgpt \"引號\" \\ \n\t🟢"}) {
      this->store.setString(key, text);
      EXPECT_EQ(this->store.stringForKey(key), text);
      EXPECT_EQ(this->store.boolForKey(key), std::nullopt);
    }
  }
}

}  // namespace
}  // namespace kestrune::testing
