#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "adapters/files/PreferencesFile.h"
#include "tests/rig/ResourceLimit.h"
#include "tests/rig/ScratchFolder.h"
#include "tests/rig/SignalState.h"

namespace kestrune::testing {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

struct Preferences : ::testing::Test {
  ScratchFolder folder;
  const std::string path = folder.file("preferences.json");
  PreferencesFile preferences{path};

  static std::string contentsOf(const std::string& file) {
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
  }
  json written() const { return json::parse(contentsOf(path)); }
  void put(const std::string& contents) const { std::ofstream(path) << contents; }
  static mode_t modeOf(const std::string& file) {
    struct stat state {};
    return stat(file.c_str(), &state) == 0 ? state.st_mode & 07777 : 0;
  }
  std::size_t filesInFolder() const {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(folder.file(".")), fs::directory_iterator()));
  }
};

TEST_F(Preferences, AreAJsonObject) {
  preferences.setBool("autoConnectEnabled", false);
  preferences.setString("connectionMode", "official_chatgpt");
  EXPECT_EQ(written(), (json{{"autoConnectEnabled", false}, {"connectionMode", "official_chatgpt"}}));
}

TEST_F(Preferences, OutliveTheProcess) {
  preferences.setBool("flag", false);
  EXPECT_EQ(PreferencesFile(path).boolForKey("flag"), false);
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

TEST_F(Preferences, KeepTheModeOfTheirFile) {
  put("{}");
  fs::permissions(path, fs::perms(0640));
  preferences.setBool("flag", true);
  EXPECT_EQ(modeOf(path), 0640U);
}

TEST_F(Preferences, StayBehindALink) {
  const std::string target = folder.file("elsewhere.json");
  std::ofstream(target) << R"({"theirs": 1})";
  fs::create_symlink("elsewhere.json", path);
  preferences.setBool("flag", true);
  EXPECT_TRUE(fs::is_symlink(path));
  EXPECT_EQ(json::parse(contentsOf(target)), (json{{"theirs", 1}, {"flag", true}}));
}

TEST_F(Preferences, FollowALinkToAFileThatIsYetToBeMade) {
  fs::create_symlink("elsewhere.json", path);
  preferences.setBool("flag", true);
  EXPECT_TRUE(fs::is_symlink(path));
  EXPECT_EQ(json::parse(contentsOf(folder.file("elsewhere.json"))), (json{{"flag", true}}));
}

TEST_F(Preferences, LeaveNothingElseInTheirFolder) {
  preferences.setBool("flag", true);
  preferences.setBool("flag", false);
  EXPECT_EQ(filesInFolder(), 1U);
}

// --- what cannot be read as preferences

struct Damage {
  const char* name;
  std::string contents;
};

void PrintTo(const Damage& damage, std::ostream* out) {
  *out << damage.name;
}

struct DamagedPreferences : Preferences, ::testing::WithParamInterface<Damage> {};
INSTANTIATE_TEST_SUITE_P(Each, DamagedPreferences,
                         ::testing::Values(Damage{"Garbage",
                                                  "\x7f"
                                                  "ELF\1\2\3"},
                                           Damage{"Empty", ""}, Damage{"Blank", " \n"},
                                           Damage{"Array", R"(["flag", true])"}, Damage{"Text", R"("flag")"},
                                           Damage{"Null", "null"},
                                           Damage{"Truncated", R"({"flag": true, "text": "t)"},
                                           Damage{"TrailingGarbage", R"({"flag": true}})"},
                                           Damage{"InvalidUtf8", "{\"flag\": true, \"text\": \"\xff\"}"},
                                           Damage{"Deep", "{\"theirs\": " + std::string(500'000, '[') +
                                                              std::string(500'000, ']') + "}"},
                                           Damage{"Huge", std::string(10'000'000, '\0')}),
                         [](const auto& damage) { return std::string(damage.param.name); });

TEST_P(DamagedPreferences, ReadAsNeverWritten) {
  put(GetParam().contents);
  EXPECT_EQ(preferences.boolForKey("flag"), std::nullopt);
  EXPECT_EQ(preferences.stringForKey("text"), std::nullopt);
  EXPECT_EQ(contentsOf(path), GetParam().contents) << "reading must change nothing";
}

TEST_P(DamagedPreferences, AreKeptAsideAtTheNextWrite) {
  put(GetParam().contents);
  preferences.setBool("other", true);
  EXPECT_EQ(contentsOf(path + ".damaged"), GetParam().contents);
  EXPECT_EQ(written(), (json{{"other", true}}));
}

TEST_F(Preferences, KeepEveryDamagedFileThatThereWas) {
  for (const std::string damage : {"first", "second", "third"}) {
    put(damage);
    preferences.setBool("flag", true);
  }
  EXPECT_EQ(contentsOf(path + ".damaged"), "first");
  EXPECT_EQ(contentsOf(path + ".damaged-2"), "second");
  EXPECT_EQ(contentsOf(path + ".damaged-3"), "third");
}

TEST_F(Preferences, DoNotTakeTheNameOfALinkThatLeadsNowhere) {
  fs::create_symlink("nowhere", path + ".damaged");
  put("damage");
  preferences.setBool("flag", true);
  EXPECT_TRUE(fs::is_symlink(path + ".damaged"));
  EXPECT_EQ(contentsOf(path + ".damaged-2"), "damage");
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

TEST_F(Preferences, AreNotDamagedByAProcessThatCannotOpenThem) {
  put(R"({"theirs": 1, "flag": true})");
  {
    const ResourceLimit noDescriptors(RLIMIT_NOFILE, 0);
    preferences.setBool("flag", false);
    EXPECT_EQ(preferences.boolForKey("flag"), false);
  }
  EXPECT_EQ(contentsOf(path), R"({"theirs": 1, "flag": true})");
  preferences.setString("text", "t");
  EXPECT_EQ(written(), (json{{"theirs", 1}, {"flag", false}, {"text", "t"}}));
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

TEST_F(UnwritablePreferences, HoldForThisProcess) {
  unwritable.setBool("flag", false);
  unwritable.setString("text", "t");
  EXPECT_EQ(unwritable.boolForKey("flag"), false);
  EXPECT_EQ(unwritable.stringForKey("text"), "t");
  EXPECT_EQ(contentsOf(place), "a file");
}

TEST_F(UnwritablePreferences, HoldForNoOtherProcess) {
  unwritable.setBool("flag", false);
  EXPECT_EQ(PreferencesFile(place + "/preferences.json").boolForKey("flag"), std::nullopt);
}

TEST_F(UnwritablePreferences, AreAllWrittenWithTheNextOneThatCanBe) {
  unwritable.setBool("flag", true);
  unwritable.setBool("flag", false);
  makeWritable();
  EXPECT_EQ(unwritable.boolForKey("flag"), false);
  unwritable.setString("text", "t");
  EXPECT_EQ(json::parse(contentsOf(place + "/preferences.json")), (json{{"flag", false}, {"text", "t"}}));
}

TEST_F(UnwritablePreferences, NoLongerHoldAgainstOthersOnceTheyAreWritten) {
  unwritable.setBool("flag", true);
  makeWritable();
  unwritable.setBool("other", true);
  PreferencesFile(place + "/preferences.json").setBool("flag", false);
  EXPECT_EQ(unwritable.boolForKey("flag"), false);
}

TEST_F(Preferences, HoldOverTheOldFileWhenTheDiskIsFull) {
  put(R"({"flag": true})");
  {
    const SignalState restored;
    std::signal(SIGXFSZ, SIG_IGN);
    const ResourceLimit noRoom(RLIMIT_FSIZE, 0);
    preferences.setBool("flag", false);
    EXPECT_EQ(preferences.boolForKey("flag"), false);
  }
  EXPECT_EQ(contentsOf(path), R"({"flag": true})");
  EXPECT_EQ(filesInFolder(), 1U);
  preferences.setString("text", "t");
  EXPECT_EQ(written(), (json{{"flag", false}, {"text", "t"}}));
}

TEST_F(Preferences, OfADamagedFileAreNotLostWhenTheDiskIsFull) {
  put("damage");
  {
    const SignalState restored;
    std::signal(SIGXFSZ, SIG_IGN);
    const ResourceLimit noRoom(RLIMIT_FSIZE, 0);
    preferences.setBool("flag", false);
    EXPECT_EQ(preferences.boolForKey("flag"), false);
  }
  preferences.setString("text", "t");
  EXPECT_EQ(written(), (json{{"flag", false}, {"text", "t"}}));
  EXPECT_EQ(contentsOf(path + ".damaged"), "damage");
}

}  // namespace
}  // namespace kestrune::testing
