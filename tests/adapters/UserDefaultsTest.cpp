#include <gtest/gtest.h>

#include "adapters/files/PreferencesFile.h"
#include "tests/rig/FakePlatform.h"
#include "tests/rig/ScratchFolder.h"

namespace kestrune::testing {
namespace {

struct FakeStore {
  FakeUserDefaults store;
};

struct FileStore {
  ScratchFolder folder;
  PreferencesFile store{folder.file("preferences.json")};
};

template <typename Store>
struct UserDefaultsContract : ::testing::Test, Store {};

using Stores = ::testing::Types<FakeStore, FileStore>;
TYPED_TEST_SUITE(UserDefaultsContract, Stores);

TYPED_TEST(UserDefaultsContract, KnowNothingThatWasNeverWritten) {
  EXPECT_EQ(this->store.boolForKey("key"), std::nullopt);
  EXPECT_EQ(this->store.stringForKey("key"), std::nullopt);
}

TYPED_TEST(UserDefaultsContract, TellFalseFromAbsent) {
  this->store.setBool("on", true);
  this->store.setBool("off", false);
  EXPECT_EQ(this->store.boolForKey("on"), true);
  EXPECT_EQ(this->store.boolForKey("off"), false);
  EXPECT_EQ(this->store.boolForKey("other"), std::nullopt);
}

TYPED_TEST(UserDefaultsContract, TellAnEmptyTextFromAbsent) {
  this->store.setString("empty", "");
  EXPECT_EQ(this->store.stringForKey("empty"), "");
}

TYPED_TEST(UserDefaultsContract, KeepText) {
  const std::string text = "official_chatgpt \"引號\" \\ \n\t🟢";
  this->store.setString("key", text);
  EXPECT_EQ(this->store.stringForKey("key"), text);
}

TYPED_TEST(UserDefaultsContract, KeepWhatWasWrittenLast) {
  this->store.setBool("flag", true);
  this->store.setBool("flag", false);
  this->store.setString("text", "one");
  this->store.setString("text", "two");
  EXPECT_EQ(this->store.boolForKey("flag"), false);
  EXPECT_EQ(this->store.stringForKey("text"), "two");
}

TYPED_TEST(UserDefaultsContract, ReadAValueOfAnotherKindAsAbsent) {
  this->store.setString("text", "true");
  this->store.setBool("flag", true);
  EXPECT_EQ(this->store.boolForKey("text"), std::nullopt);
  EXPECT_EQ(this->store.stringForKey("flag"), std::nullopt);
}

TYPED_TEST(UserDefaultsContract, LetAKeyChangeItsKind) {
  this->store.setString("key", "text");
  this->store.setBool("key", true);
  EXPECT_EQ(this->store.boolForKey("key"), true);
  EXPECT_EQ(this->store.stringForKey("key"), std::nullopt);
}

TYPED_TEST(UserDefaultsContract, TakeAnyTextForAKey) {
  for (const std::string key : {"", "a/b", "Über", "a.b"}) {
    this->store.setString(key, "at " + key);
    EXPECT_EQ(this->store.stringForKey(key), "at " + key);
  }
}

}  // namespace
}  // namespace kestrune::testing
