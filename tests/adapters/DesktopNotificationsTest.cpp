#include <gtest/gtest.h>

#include "tests/adapters/NotifyingDesk.h"

namespace kestrune::testing {
namespace {

constexpr Seconds atOnce{5.0};  // a call that waits for the bus waits 25 s

struct DesktopNotifications : NotifyingDesk {
  void SetUp() override { bus.start(); }
};

// --- what is sent

TEST_F(DesktopNotifications, SayWhoSendsThemAndThatTheyAreTransient) {
  daemon = serve(plain);
  connect();
  add("Kestrune 網路已變更", "已重新連線");
  ASSERT_TRUE(comesTo(2));
  EXPECT_EQ(daemon->calls(), (Calls{question, notify("Kestrune 網路已變更", "已重新連線")}));
}

TEST_F(DesktopNotifications, AskADaemonOnceWhatItReadsAndNotBeforeThereIsSomethingToShow) {
  daemon = serve(plain);
  connect();
  notifications->requestAuthorization(1);
  ASSERT_TRUE(trip.succeeds(loop));
  EXPECT_EQ(daemon->calls(), Calls{});
  for (const char* const title : {"1", "2", "3"}) add(title, "");
  ASSERT_TRUE(comesTo(4));
  EXPECT_EQ(daemon->calls(), (Calls{question, notify("1", ""), notify("2", ""), notify("3", "")}));
}

TEST_F(DesktopNotifications, AreEscapedForADaemonThatReadsMarkup) {
  daemon = serve(markup);
  connect();
  EXPECT_EQ(shown("<b>a</b> & b > c &amp; \"d\""), "&lt;b&gt;a&lt;/b&gt; &amp; b &gt; c &amp;amp; \"d\"");
}

TEST_F(DesktopNotifications, NeverHaveMarkupInTheTitle) {
  daemon = serve(markup);
  connect();
  add("<b> & \n\tx", "");
  ASSERT_TRUE(comesTo(2));
  EXPECT_EQ(lastCall(), notify("<b> &   x", ""));
}

TEST_F(DesktopNotifications, KeepTheirLinesAndNoOtherControls) {
  daemon = serve(plain);
  connect();
  using namespace std::string_literals;
  EXPECT_EQ(shown("a\nb\r\nc\n\nd\te\0f\x1b[31mg\u202Eh\xFFi\uFFFEj\n"s), "a\nb\nc\n\nd e fg h i j\n");
}

TEST_F(DesktopNotifications, AreCutWhenTheyAreTooLongForAnyScreen) {
  daemon = serve(markup);
  connect();
  std::string expected;
  for (int i = 0; i < 997; ++i) expected += "&amp;";
  EXPECT_EQ(shown(std::string(1001, '&')), expected + "...");
  EXPECT_EQ(shown(std::string(1000, 'x')), std::string(1000, 'x'));
  EXPECT_EQ(shown(std::string(1 << 20, 'x')), std::string(997, 'x') + "...");
}

TEST_F(DesktopNotifications, AreCutWhenTheyHaveTooManyLines) {
  daemon = serve(plain);
  connect();
  std::string lines;
  for (int i = 0; i < 39; ++i) lines += "x\n";
  EXPECT_EQ(shown(lines + "end"), lines + "end");
  EXPECT_EQ(shown(lines + "end\nmore"), lines + "end...");
}

TEST_F(DesktopNotifications, DoWithoutAnIconWhoseNameIsNoText) {
  notifications = std::make_unique<kestrune::DesktopNotifications>(sessionBus, timers, "/\xFF/logo.png");
  daemon = serve(plain);
  connect();
  add("1", "");
  ASSERT_TRUE(comesTo(2));
  EXPECT_NE(lastCall().find("'Kestrune', 0, '', '1'"), std::string::npos);
}

// --- those that last

/// A daemon that numbers what it shows from `number` on.
StubService::Behaviour numberingFrom(std::uint32_t number) {
  return [number](sd_bus_message* call) mutable {
    if (std::strcmp(sd_bus_message_get_member(call), "Notify") != 0) return plain(call);
    sd_bus_reply_method_return(call, "u", number++);
    return true;
  };
}
std::string closing(int number) {
  return "/org/freedesktop/Notifications CloseNotification " + std::to_string(number);
}

TEST_F(DesktopNotifications, StayWhenTheyAreMeantTo) {
  daemon = serve(plain);
  connect();
  notifications->add({"id", "t", "b", true});
  ASSERT_TRUE(comesTo(2));
  EXPECT_EQ(lastCall(), notify("t", "b", true));
}

TEST_F(DesktopNotifications, AreWithdrawnByTheirNumbers) {
  daemon = serve(numberingFrom(7));
  connect();
  for (const char* const each : {"a", "b", "c"}) notifications->add({each, each, "", true});
  ASSERT_TRUE(comesTo(4));
  daemon->settle();
  ASSERT_TRUE(trip.succeeds(loop));
  for (const char* const each : {"b", "b", "x", "c"}) notifications->withdraw(each);
  ASSERT_TRUE(comesTo(6));
  ASSERT_TRUE(trip.succeeds(loop));
  EXPECT_EQ(daemon->calls(), (Calls{question, notify("a", "", true), notify("b", "", true),
                                    notify("c", "", true), closing(8), closing(9)}));
}

TEST_F(DesktopNotifications, AreWithdrawnAsSoonAsTheirNumberIsKnown) {
  sd_bus_message* held = nullptr;
  daemon = serve([&held](sd_bus_message* call) {
    if (std::strcmp(sd_bus_message_get_member(call), "Notify") != 0) return plain(call);
    held = sd_bus_message_ref(call);
    return true;
  });
  connect();
  notifications->add({"a", "a", "", true});
  ASSERT_TRUE(comesTo(2));
  notifications->withdraw("a");
  daemon->perform([&held] {
    sd_bus_reply_method_return(held, "u", 7);
    sd_bus_message_unref(held);
  });
  ASSERT_TRUE(comesTo(3));
  EXPECT_EQ(lastCall(), closing(7));
}

TEST_F(DesktopNotifications, AreNotSentAfterTheyWereWithdrawn) {
  daemon = serve(StubService::saysNothing());
  connect();
  notifications->add({"a", "a", "", true});
  notifications->withdraw("a");
  add("next", "");
  timers.advance(Seconds{1.0});
  ASSERT_TRUE(comesTo(2));
  EXPECT_EQ(daemon->calls(), (Calls{question, notify("next", "")}));
}

TEST_F(DesktopNotifications, AreNotWithdrawnFromADaemonThatNeverHadThem) {
  daemon = serve([](sd_bus_message* call) {
    if (std::strcmp(sd_bus_message_get_member(call), "Notify") != 0) return plain(call);
    sd_bus_reply_method_errorf(call, SD_BUS_ERROR_LIMITS_EXCEEDED, "too many");
    return true;
  });
  connect();
  notifications->add({"refused", "refused", "", true});
  ASSERT_TRUE(comesTo(2));
  daemon->settle();
  ASSERT_TRUE(trip.succeeds(loop));
  notifications->withdraw("refused");
  daemon->behave(numberingFrom(7));
  notifications->add({"lost", "lost", "", true});
  ASSERT_TRUE(comesTo(3));
  daemon.reset();
  daemon = serve(numberingFrom(7));
  ASSERT_TRUE(trip.succeeds(loop));
  notifications->withdraw("lost");
  add("next", "");
  ASSERT_TRUE(comesTo(2));
  EXPECT_EQ(daemon->calls(), (Calls{question, notify("next", "")}));
}

TEST_F(DesktopNotifications, AreRememberedToALimit) {
  daemon = serve(numberingFrom(1));
  connect();
  for (int number = 1; number <= 33; ++number) {
    notifications->add({std::to_string(number), "t", "", true});
    ASSERT_TRUE(comesTo(static_cast<std::size_t>(number) + 1));
  }
  daemon->settle();
  ASSERT_TRUE(trip.succeeds(loop));
  daemon->newCalls();
  notifications->withdraw("1");
  notifications->withdraw("2");
  ASSERT_TRUE(comesTo(1));
  EXPECT_EQ(daemon->calls(), Calls{closing(2)});
}

// --- daemons that come and go

TEST_F(DesktopNotifications, AskAnotherDaemonAnew) {
  daemon = serve(plain);
  connect();
  EXPECT_EQ(shown("<"), "<");
  daemon.reset();
  daemon = serve(markup);
  ASSERT_TRUE(trip.succeeds(loop));
  EXPECT_EQ(shown("<"), "&lt;");
}

TEST_F(DesktopNotifications, AskTheDaemonThatReplacesOneThatHasNotAnswered) {
  daemon = serve(StubService::saysNothing());
  connect();
  add("1", "<");
  ASSERT_TRUE(comesTo(1));
  const auto replaced = std::move(daemon);
  daemon = serve(markup);
  ASSERT_TRUE(comesTo(2));
  EXPECT_EQ(daemon->calls(), (Calls{question, notify("1", "&lt;")}));
  EXPECT_EQ(replaced->calls(), Calls{question});
}

TEST_F(DesktopNotifications, DoNotTakeTheAnswerOfOneDaemonForThatOfAnother) {
  sd_bus_message* held = nullptr;
  daemon = serve(StubService::holds("GetCapabilities", held));
  connect();
  add("1", "");
  ASSERT_TRUE(comesTo(1));
  timers.advance(Seconds{1.0});
  ASSERT_TRUE(comesTo(2));
  const auto replaced = std::move(daemon);
  daemon = serve(plain);
  ASSERT_TRUE(trip.succeeds(loop));
  replaced->perform([&held] {
    markup(held);
    sd_bus_message_unref(held);
  });
  replaced->settle();
  ASSERT_TRUE(trip.succeeds(loop));
  EXPECT_EQ(shown("<"), "<");
}

TEST_F(DesktopNotifications, AreDroppedInSilenceWithoutADaemon) {
  connect();
  add("lost", "");
  ASSERT_TRUE(trip.succeeds(loop));
  daemon = serve(plain);
  ASSERT_TRUE(trip.succeeds(loop));
  add("found", "");
  ASSERT_TRUE(comesTo(2));
  EXPECT_EQ(daemon->calls(), (Calls{question, notify("found", "")}));
}

TEST_F(DesktopNotifications, GoOnOverANewBus) {
  daemon = serve(plain);
  connect();
  add("1", "<");
  ASSERT_TRUE(comesTo(2));
  daemon.reset();
  bus.stop();
  bus.start();
  daemon = serve(markup);
  ASSERT_TRUE(comesTrue(loop, [this] { return trip.connections == 2; }));
  ASSERT_TRUE(trip.succeeds(loop));
  add("2", "<");
  ASSERT_TRUE(comesTo(2));
  EXPECT_EQ(daemon->calls(), (Calls{question, notify("2", "&lt;")}));
}

// --- daemons that do not say what they read

TEST_F(DesktopNotifications, WaitOneSecondOnceAndThenReadTheSameEitherWay) {
  daemon = serve(StubService::saysNothing());
  connect();
  add("1", "<a> & b");
  add("2", "");
  ASSERT_TRUE(comesTo(1));
  timers.advance(Seconds{0.9});
  ASSERT_TRUE(trip.succeeds(loop));
  EXPECT_EQ(daemon->calls(), Calls{question});
  timers.advance(Seconds{0.1});
  ASSERT_TRUE(comesTo(3));
  EXPECT_EQ(daemon->calls(), (Calls{question, notify("1", "＜a> ＆ b"), notify("2", "")}));
  EXPECT_EQ(shown("<a>"), "＜a>");
  EXPECT_EQ(timers.liveTimers(), 0u);
}

TEST_F(DesktopNotifications, TakeALateAnswerForTheNextOne) {
  sd_bus_message* held = nullptr;
  daemon = serve(StubService::holds("GetCapabilities", held));
  connect();
  add("1", "<");
  timers.advance(Seconds{1.0});
  ASSERT_TRUE(comesTo(2));
  daemon->perform([&held] {
    markup(held);
    sd_bus_message_unref(held);
  });
  EXPECT_TRUE(comesTrueElsewhere(loop, [this] { return shown("<") == "&lt;"; }));
}

TEST_F(DesktopNotifications, DoNotWaitForADaemonThatCannotSay) {
  for (const StubService::Behaviour& behaviour :
       {StubService::refuses(SD_BUS_ERROR_UNKNOWN_METHOD), StubService::Behaviour([](sd_bus_message* call) {
          sd_bus_reply_method_return(call, "u", 7);
          return true;
        }),
        StubService::Behaviour([](sd_bus_message* call) {
          sd_bus_reply_method_return(call, "");
          return true;
        })}) {
    daemon.reset();
    daemon = serve(behaviour);
    if (!sessionBus.isConnected()) connect();
    ASSERT_TRUE(trip.succeeds(loop));
    EXPECT_EQ(shown("<a> & b"), "＜a> ＆ b");
    daemon->newCalls();
    EXPECT_EQ(shown("<"), "＜");
  }
}

TEST_F(DesktopNotifications, KeepTheLatestOfTooManyThatWait) {
  sd_bus_message* held = nullptr;
  daemon = serve(StubService::holds("GetCapabilities", held));
  connect();
  for (int number = 1; number <= 1000; ++number) add(std::to_string(number), "");
  ASSERT_TRUE(comesTo(1));
  daemon->perform([&held] {
    plain(held);
    sd_bus_message_unref(held);
  });
  ASSERT_TRUE(comesTo(33));
  const Calls calls = daemon->calls();
  ASSERT_EQ(calls.size(), 33u);
  EXPECT_EQ(calls[1], notify("969", ""));
  EXPECT_EQ(calls[32], notify("1000", ""));
}

TEST_F(DesktopNotifications, DoNotPileUpOnABusThatTakesNothing) {
  daemon = serve(plain);
  bus.freeze();
  sessionBus.connect();
  add("meanwhile", "");
  timers.advance(Seconds{1.0});
  for (int number = 0; number < 1000; ++number) add("meanwhile", "");
  bus.thaw();
  ASSERT_TRUE(trip.succeeds(loop));
  add("after", "");
  EXPECT_TRUE(comesTrueElsewhere(loop, [this] { return lastCall() == notify("after", ""); }));
  EXPECT_LT(daemon->calls().size(), 100u);
  EXPECT_GT(daemon->calls().size(), 10u);
}

TEST_F(DesktopNotifications, DoNotWaitForABusThatHasStopped) {
  bus.freeze();
  sessionBus.connect();
  EXPECT_LT(durationOf([this] { add("1", ""); }), atOnce);
  EXPECT_LT(durationOf([this] { notifications.reset(); }), atOnce);
  bus.thaw();
}

}  // namespace
}  // namespace kestrune::testing
