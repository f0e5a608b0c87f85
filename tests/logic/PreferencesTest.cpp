#include "tests/logic/ControllerTest.h"

namespace kestrune::testing {
namespace {

struct Preferences : ControllerTest {
  using Value = std::variant<bool, std::string>;
  std::map<std::string, Value>& stored = machine.userDefaults.values;

  void expectRead(bool autoConnect, bool keepAwake, bool official) const {
    EXPECT_EQ(controller->isAutoConnectEnabled(), autoConnect);
    EXPECT_EQ(controller->isKeepAwakeEnabled(), keepAwake);
    EXPECT_EQ(controller->isOfficialConnectionMode(), official);
    EXPECT_EQ(controller->connectionModeLabel(), official ? "官方 ChatGPT" : "Kestrune 自托管");
  }
};

TEST_F(Preferences, FreshStoreMeansEverythingOnAndSelfHosted) {
  expectRead(true, true, false);
  EXPECT_TRUE(stored.empty()) << "reading writes nothing";
}

TEST_F(Preferences, AreStoredUnderTheirKeysAndReadAnewEachTime) {
  controller->setAutoConnectEnabled(false);
  EXPECT_EQ(stored, (std::map<std::string, Value>{{"autoConnectEnabled", false}}));
  expectRead(false, true, false);
  controller->setKeepAwakeEnabled(false);
  controller->setOfficialConnectionMode(true);
  EXPECT_EQ(stored, (std::map<std::string, Value>{{"autoConnectEnabled", false},
                                                  {"keepAwakeEnabled", false},
                                                  {"connectionMode", std::string("official_chatgpt")}}));
  expectRead(false, false, true);
  controller->setAutoConnectEnabled(true);
  controller->setKeepAwakeEnabled(true);
  controller->setOfficialConnectionMode(false);
  EXPECT_EQ(stored, (std::map<std::string, Value>{{"autoConnectEnabled", true},
                                                  {"keepAwakeEnabled", true},
                                                  {"connectionMode", std::string("kestrune_self_hosted")}}));
  expectRead(true, true, false);
  stored["autoConnectEnabled"] = false;
  expectRead(false, true, false);
}

TEST_F(Preferences, OnlyTheExactTextSelectsTheOfficialMode) {
  for (const char* text : {"OFFICIAL_CHATGPT", "official", "", "official_chatgpt ", " official_chatgpt",
                           "kestrune_self_hosted", "official_chatgpt\n"}) {
    SCOPED_TRACE(text);
    stored["connectionMode"] = std::string(text);
    expectRead(true, true, false);
  }
}

TEST_F(Preferences, ValueOfTheWrongKindReadsAsNeverWritten) {
  stored["autoConnectEnabled"] = std::string("false");
  stored["keepAwakeEnabled"] = std::string("");
  stored["connectionMode"] = true;
  expectRead(true, true, false);
}

}  // namespace
}  // namespace kestrune::testing
