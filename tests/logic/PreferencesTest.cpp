#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct Preferences : ControllerTest {
  using Value = std::variant<bool, std::string>;
  std::map<std::string, Value>& stored = machine.userDefaults.values;
};

TEST_F(Preferences, FreshStoreMeansEverythingOnAndSelfHosted) {
  EXPECT_TRUE(controller->isAutoConnectEnabled());
  EXPECT_TRUE(controller->isKeepAwakeEnabled());
  EXPECT_FALSE(controller->isOfficialConnectionMode());
  EXPECT_EQ(controller->connectionModeLabel(), "Kestrune 自托管");
}

TEST_F(Preferences, ReadingWritesNothing) {
  controller->isAutoConnectEnabled();
  controller->isKeepAwakeEnabled();
  controller->isOfficialConnectionMode();
  controller->connectionModeLabel();
  EXPECT_TRUE(stored.empty());
}

TEST_F(Preferences, StoredFalseIsNotTheDefault) {
  controller->setAutoConnectEnabled(false);
  EXPECT_FALSE(controller->isAutoConnectEnabled());
  EXPECT_TRUE(controller->isKeepAwakeEnabled());
  controller->setKeepAwakeEnabled(false);
  EXPECT_FALSE(controller->isKeepAwakeEnabled());
}

TEST_F(Preferences, StoredTrueReadsAsOn) {
  controller->setAutoConnectEnabled(false);
  controller->setAutoConnectEnabled(true);
  controller->setKeepAwakeEnabled(false);
  controller->setKeepAwakeEnabled(true);
  EXPECT_TRUE(controller->isAutoConnectEnabled());
  EXPECT_TRUE(controller->isKeepAwakeEnabled());
}

TEST_F(Preferences, AutoConnectIsStoredAsABooleanUnderItsKey) {
  controller->setAutoConnectEnabled(false);
  EXPECT_EQ(stored, (std::map<std::string, Value>{{"autoConnectEnabled", false}}));
  controller->setAutoConnectEnabled(true);
  EXPECT_EQ(stored, (std::map<std::string, Value>{{"autoConnectEnabled", true}}));
}

TEST_F(Preferences, KeepAwakeIsStoredAsABooleanUnderItsKey) {
  controller->setKeepAwakeEnabled(false);
  EXPECT_EQ(stored, (std::map<std::string, Value>{{"keepAwakeEnabled", false}}));
  controller->setKeepAwakeEnabled(true);
  EXPECT_EQ(stored, (std::map<std::string, Value>{{"keepAwakeEnabled", true}}));
}

TEST_F(Preferences, OfficialModeIsStoredAsItsText) {
  controller->setOfficialConnectionMode(true);
  EXPECT_EQ(stored, (std::map<std::string, Value>{{"connectionMode", std::string("official_chatgpt")}}));
  EXPECT_TRUE(controller->isOfficialConnectionMode());
  EXPECT_EQ(controller->connectionModeLabel(), "官方 ChatGPT");
}

TEST_F(Preferences, SelfHostedModeIsWrittenAndDoesNotRemoveTheKey) {
  controller->setOfficialConnectionMode(true);
  controller->setOfficialConnectionMode(false);
  EXPECT_EQ(stored, (std::map<std::string, Value>{{"connectionMode", std::string("kestrune_self_hosted")}}));
  EXPECT_FALSE(controller->isOfficialConnectionMode());
  EXPECT_EQ(controller->connectionModeLabel(), "Kestrune 自托管");
}

TEST_F(Preferences, OnlyTheExactTextSelectsTheOfficialMode) {
  for (const char* text : {"OFFICIAL_CHATGPT", "official", "", "official_chatgpt ", " official_chatgpt",
                           "Official_chatgpt", "kestrune_self_hosted", "official_chatgpt\n"}) {
    SCOPED_TRACE(text);
    stored["connectionMode"] = std::string(text);
    EXPECT_FALSE(controller->isOfficialConnectionMode());
    EXPECT_EQ(controller->connectionModeLabel(), "Kestrune 自托管");
  }
}

TEST_F(Preferences, ValueOfTheWrongKindReadsAsNeverWritten) {
  stored["autoConnectEnabled"] = std::string("false");
  stored["keepAwakeEnabled"] = std::string("");
  stored["connectionMode"] = true;
  EXPECT_TRUE(controller->isAutoConnectEnabled());
  EXPECT_TRUE(controller->isKeepAwakeEnabled());
  EXPECT_FALSE(controller->isOfficialConnectionMode());
}

TEST_F(Preferences, NothingIsCachedBetweenTwoReads) {
  ASSERT_TRUE(controller->isAutoConnectEnabled());
  ASSERT_TRUE(controller->isKeepAwakeEnabled());
  ASSERT_FALSE(controller->isOfficialConnectionMode());
  stored["autoConnectEnabled"] = false;
  stored["keepAwakeEnabled"] = false;
  stored["connectionMode"] = std::string("official_chatgpt");
  EXPECT_FALSE(controller->isAutoConnectEnabled());
  EXPECT_FALSE(controller->isKeepAwakeEnabled());
  EXPECT_TRUE(controller->isOfficialConnectionMode());
  stored.clear();
  EXPECT_TRUE(controller->isAutoConnectEnabled());
  EXPECT_TRUE(controller->isKeepAwakeEnabled());
  EXPECT_FALSE(controller->isOfficialConnectionMode());
}

}  // namespace
}  // namespace kestrune::testing
