#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "adapters/files/PreferencesFile.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/FileTest.h"
#include "tests/rig/ResourceLimit.h"
#include "tests/rig/SignalState.h"

namespace kestrune::testing {
namespace {

using nlohmann::json;

struct Preferences : FileTest {
  const std::string path = folder.file("preferences.json");
  PreferencesFile preferences{path};

  json written() const { return json::parse(contentsOf(path)); }
  void put(const std::string& contents) const { testing::put(path, contents); }
};

TEST_F(Preferences, AreAJsonObject) {
  preferences.setBool("autoConnectEnabled", false);
  preferences.setString("connectionMode", "official_chatgpt");
  EXPECT_EQ(written(), (json{{"autoConnectEnabled", false}, {"connectionMode", "official_chatgpt"}}));
}

TEST_F(Preferences, AreReadAnewEachTime) {
  PreferencesFile other(path);
  preferences.setBool("flag", true);
  EXPECT_EQ(other.boolForKey("flag"), true);
  other.setBool("flag", false);
  other.setString("text", "from the other");
  EXPECT_EQ(preferences.boolForKey("flag"), false);
  EXPECT_EQ(preferences.stringForKey("text"), "from the other");
  fs::remove(path);
  EXPECT_EQ(preferences.boolForKey("flag"), std::nullopt);
}

TEST_F(Preferences, OfAnotherKindReadAsAbsent) {
  put(R"({"a": 1, "b": null, "c": [true], "d": {"x": "y"}, "e": "true", "f": 0})");
  for (const std::string key : {"a", "b", "c", "d", "e", "f"}) {
    EXPECT_EQ(preferences.boolForKey(key), std::nullopt) << key;
  }
  for (const std::string key : {"a", "b", "c", "d", "f"}) {
    EXPECT_EQ(preferences.stringForKey(key), std::nullopt) << key;
  }
}

TEST_F(Preferences, KeepTheKeysOfOthers) {
  put(R"({"theirs": {"deep": [1, 2.5, null, "文"]}, "flag": true})");
  preferences.setBool("flag", false);
  EXPECT_EQ(written(), json::parse(R"({"theirs": {"deep": [1, 2.5, null, "文"]}, "flag": false})"));
}

TEST_F(Preferences, AreForTheirOwnerAloneAndSoAreTheirFolders) {
  const std::string deep = folder.file("a/b/preferences.json");
  PreferencesFile(deep).setBool("flag", true);
  EXPECT_EQ(modeOf(deep), 0600U);
  EXPECT_EQ(modeOf(folder.file("a/b")), 0700U);
  EXPECT_EQ(modeOf(folder.file("a")), 0700U);
}

// --- what cannot be read as preferences

TEST_F(Preferences, ThatAreDamagedReadAsNeverWrittenAndAreKeptAsideAtTheNextWrite) {
  const std::string deep = "{\"theirs\": " + std::string(500'000, '[') + std::string(500'000, ']') + "}";
  for (const std::string& damage :
       {std::string("\x7f\x45LF\1\2\3"), std::string(), std::string(R"(["flag", true])"),
        std::string(R"({"flag": true, "text": "t)"), std::string("{\"flag\": true, \"text\": \"\xff\"}"),
        deep, std::string(10'000'000, '\0')}) {
    SCOPED_TRACE(damage.substr(0, 30));
    put(damage);
    EXPECT_EQ(preferences.boolForKey("flag"), std::nullopt);
    EXPECT_EQ(preferences.stringForKey("text"), std::nullopt);
    EXPECT_TRUE(contentsOf(path) == damage) << "reading must change nothing";
    preferences.setBool("other", true);
    EXPECT_TRUE(contentsOf(path + ".damaged") == damage);
    EXPECT_EQ(written(), (json{{"other", true}}));
    fs::remove(path + ".damaged");
  }
}

TEST_F(Preferences, KeepEveryDamagedFileUnderANameThatIsFree) {
  fs::create_symlink("nowhere", path + ".damaged-2");
  for (const std::string damage : {"first", "third"}) {
    put(damage);
    preferences.setBool("flag", true);
  }
  EXPECT_EQ(contentsOf(path + ".damaged"), "first");
  EXPECT_TRUE(fs::is_symlink(path + ".damaged-2"));
  EXPECT_EQ(contentsOf(path + ".damaged-3"), "third");
}

TEST_F(Preferences, KeepAFolderInTheirPlaceAside) {
  fs::create_directory(path);
  std::ofstream(path + "/file") << "somebody's";
  EXPECT_EQ(preferences.boolForKey("flag"), std::nullopt);
  preferences.setBool("flag", true);
  EXPECT_EQ(contentsOf(path + ".damaged/file"), "somebody's");
  EXPECT_EQ(written(), (json{{"flag", true}}));
}

TEST_F(Preferences, DoNotWaitForANamedPipeInTheirPlace) {
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(preferences.boolForKey("flag"), std::nullopt);
  preferences.setBool("flag", true);
  EXPECT_TRUE(fs::is_fifo(path + ".damaged"));
  EXPECT_EQ(written(), (json{{"flag", true}}));
}

TEST_F(Preferences, StayBehindALinkAlsoWhenTheyWereDamaged) {
  const std::string target = folder.file("elsewhere.json");
  std::ofstream(target) << "damage";
  fs::create_symlink("elsewhere.json", path);
  preferences.setBool("flag", true);
  EXPECT_TRUE(fs::is_symlink(path));
  EXPECT_EQ(written(), (json{{"flag", true}}));
  EXPECT_EQ(contentsOf(target + ".damaged"), "damage");
}

TEST_F(Preferences, HoldAsTheyWereWhileTheyCannotBeOpened) {
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

// --- what cannot be written

/// A folder that cannot be made, as there is a file in its place.
struct UnwritablePreferences : Preferences {
  const std::string place = folder.file("place");
  PreferencesFile unwritable{place + "/preferences.json"};

  UnwritablePreferences() { std::ofstream(place) << "a file"; }
  void makeWritable() const { fs::remove(place); }
};

TEST_F(UnwritablePreferences, HoldForThisProcessOnly) {
  unwritable.setBool("flag", false);
  unwritable.setString("text", "t");
  EXPECT_EQ(unwritable.boolForKey("flag"), false);
  EXPECT_EQ(unwritable.stringForKey("text"), "t");
  EXPECT_EQ(contentsOf(place), "a file");
  EXPECT_EQ(PreferencesFile(place + "/preferences.json").boolForKey("flag"), std::nullopt);
}

TEST_F(UnwritablePreferences, AreAllWrittenWithTheNextOneThatCanBe) {
  unwritable.setBool("flag", true);
  unwritable.setBool("flag", false);
  makeWritable();
  EXPECT_EQ(unwritable.boolForKey("flag"), false);
  unwritable.setString("text", "t");
  EXPECT_EQ(json::parse(contentsOf(place + "/preferences.json")), (json{{"flag", false}, {"text", "t"}}));
  // From then on they do not hold against others.
  PreferencesFile(place + "/preferences.json").setBool("flag", true);
  EXPECT_EQ(unwritable.boolForKey("flag"), true);
}

TEST_F(Preferences, HoldOverTheOldFileWhenTheDiskIsFull) {
  for (const std::string old : {R"({"flag": true})", "damage"}) {
    put(old);
    {
      const SignalState restored;
      std::signal(SIGXFSZ, SIG_IGN);
      const ResourceLimit noRoom(RLIMIT_FSIZE, 0);
      preferences.setBool("flag", false);
      EXPECT_EQ(preferences.boolForKey("flag"), false);
    }
    EXPECT_EQ(contentsOf(fs::exists(path) ? path : path + ".damaged"), old);
    EXPECT_EQ(names().size(), 1U);
    preferences.setString("text", "t");
    EXPECT_EQ(written(), (json{{"flag", false}, {"text", "t"}}));
  }
  EXPECT_EQ(contentsOf(path + ".damaged"), "damage");
}

// --- as the fake has it

template <typename Store>
Store storeIn(const ScratchFolder& folder);
template <>
FakeUserDefaults storeIn(const ScratchFolder&) {
  return {};
}
template <>
PreferencesFile storeIn(const ScratchFolder& folder) {
  return PreferencesFile(folder.file("preferences.json"));
}

template <typename Store>
struct UserDefaultsContract : FileTest {
  Store store = storeIn<Store>(folder);
};

using Stores = ::testing::Types<FakeUserDefaults, PreferencesFile>;
TYPED_TEST_SUITE(UserDefaultsContract, Stores);

TYPED_TEST(UserDefaultsContract, KeepWhatWasWrittenLastUnderAnyKey) {
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
