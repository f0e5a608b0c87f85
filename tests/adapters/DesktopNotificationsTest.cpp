#include "tests/adapters/NotifyingDesk.h"

namespace kestrune::testing {
namespace {

/// Behaves as a daemon that gives the first notification the id `number`, and each later one the next id.
StubService::Behaviour numberingFrom(std::uint32_t number) {
  return [number](sd_bus_message* call) mutable {
    if (!isMethod(call, "Notify")) return plain(call);
    sd_bus_reply_method_return(call, "u", number++);
    return true;
  };
}

std::string closing(int number) {
  return "/org/freedesktop/Notifications CloseNotification " + std::to_string(number);
}

struct DesktopNotifications : NotifyingDesk {
  void start(StubService::Behaviour behaviour) {
    daemon.reset();
    daemon = serve(std::move(behaviour));
    connect();
  }
  void addLasting(const char* identifier) { notifications->add({identifier, identifier, "", true}); }
  /// Waits until the client has received all answers that the daemon has sent.
  void settle() {
    daemon->settle();
    ASSERT_TRUE(trip.succeeds(loop));
  }
};

// --- what the client sends to the daemon

TEST_F(DesktopNotifications, AskEachDaemonOnceWhetherItReadsMarkup) {
  notifications->requestAuthorization(1);
  start(plain);
  for (const char* const title : {"1", "2", "3"}) add(title, "已重新連線");
  ASSERT_TRUE(comesTo(4));
  EXPECT_EQ(daemon->calls(), (Calls{question, notify("1", "已重新連線"), notify("2", "已重新連線"),
                                    notify("3", "已重新連線")}));
  EXPECT_EQ(shown("<"), "<");
  start(markup);
  EXPECT_EQ(shown("<b>a</b> & b > c &amp; \"d\""), "&lt;b&gt;a&lt;/b&gt; &amp; b &gt; c &amp;amp; \"d\"");
  EXPECT_EQ(daemon->calls().size(), 1U);
}

TEST_F(DesktopNotifications, NeverHaveMarkupInTheTitle) {
  start(markup);
  add("<b> & \n\tx", "");
  ASSERT_TRUE(comesTo(2));
  EXPECT_EQ(lastCall(), notify("<b> &   x", ""));
}

TEST_F(DesktopNotifications, KeepTheirLinesButNoOtherControls) {
  start(plain);
  using namespace std::string_literals;
  EXPECT_EQ(shown("a\nb\r\nc\n\nd\te\0f\x1b[31mg\u202Eh\xFFi\uFFFEj\n"s), "a\nb\nc\n\nd e fg h i j\n");
}

TEST_F(DesktopNotifications, AreCutTo1000CharactersAnd40Lines) {
  start(markup);
  std::string expected;
  for (int i = 0; i < 997; ++i) expected += "&amp;";
  EXPECT_EQ(shown(std::string(1001, '&')), expected + "...");
  EXPECT_EQ(shown(std::string(1000, 'x')), std::string(1000, 'x'));
  EXPECT_EQ(shown(std::string(1 << 20, 'x')), std::string(997, 'x') + "...");
  std::string lines;
  for (int i = 0; i < 39; ++i) lines += "x\n";
  EXPECT_EQ(shown(lines + "end"), lines + "end");
  EXPECT_EQ(shown(lines + "end\nmore"), lines + "end...");
}

TEST_F(DesktopNotifications, HaveNoIconIfItsPathIsNotUtf8) {
  notifications = std::make_unique<kestrune::DesktopNotifications>(sessionBus, "/\xFF/logo.png");
  start(plain);
  add("1", "");
  ASSERT_TRUE(comesTo(2));
  EXPECT_NE(lastCall().find("'Kestrune', 0, '', '1'"), std::string::npos);
}

// --- notifications that do not expire

TEST_F(DesktopNotifications, AreWithdrawnByTheirNumbers) {
  start(numberingFrom(7));
  for (const char* const each : {"a", "b", "c"}) addLasting(each);
  ASSERT_TRUE(comesTo(4));
  settle();
  for (const char* const each : {"b", "b", "x", "c"}) notifications->withdraw(each);
  ASSERT_TRUE(comesTo(6));
  ASSERT_TRUE(trip.succeeds(loop));
  EXPECT_EQ(daemon->calls(), (Calls{question, notify("a", "", true), notify("b", "", true),
                                    notify("c", "", true), closing(8), closing(9)}));
}

TEST_F(DesktopNotifications, AreWithdrawnHoweverLateTheirNumberIsKnown) {
  sd_bus_message* held = nullptr;
  start(StubService::holds("Notify", held));
  ASSERT_TRUE(trip.succeeds(loop));
  addLasting("a");
  ASSERT_TRUE(comesTo(2));
  notifications->withdraw("a");
  daemon->answer(held, StubService::returns("u", 7));
  ASSERT_TRUE(comesTo(3));
  EXPECT_EQ(lastCall(), closing(7));
}

TEST_F(DesktopNotifications, AreNotWithdrawnFromADaemonThatNeverHadThem) {
  start([](sd_bus_message* call) {
    if (!isMethod(call, "Notify")) return plain(call);
    sd_bus_reply_method_errorf(call, SD_BUS_ERROR_LIMITS_EXCEEDED, "too many");
    return true;
  });
  addLasting("refused");
  ASSERT_TRUE(comesTo(2));
  settle();
  notifications->withdraw("refused");
  daemon->behave(numberingFrom(7));
  addLasting("lost");
  ASSERT_TRUE(comesTo(3));
  start(numberingFrom(7));
  notifications->withdraw("lost");
  add("next", "");
  ASSERT_TRUE(comesTo(2));
  EXPECT_EQ(daemon->calls(), (Calls{question, notify("next", "")}));
}

TEST_F(DesktopNotifications, CanBeWithdrawnIfTheyAreAmongTheLast32) {
  start(numberingFrom(1));
  for (int number = 1; number <= 33; ++number) {
    addLasting(std::to_string(number).c_str());
    ASSERT_TRUE(comesTo(static_cast<std::size_t>(number) + 1));
  }
  settle();
  daemon->newCalls();
  notifications->withdraw("1");
  notifications->withdraw("2");
  ASSERT_TRUE(comesTo(1));
  EXPECT_EQ(daemon->calls(), Calls{closing(2)});
}

// --- daemons that start, end, or do not answer

TEST_F(DesktopNotifications, ReadTheSameWithAndWithoutMarkupUntilTheDaemonHasAnswered) {
  sd_bus_message* held = nullptr;
  start(StubService::holds("GetCapabilities", held));
  EXPECT_EQ(shown("<a> & b"), "＜a> ＆ b");
  const auto replaced = std::move(daemon);
  start(StubService::saysNothing());
  replaced->answer(held, markup);
  replaced->settle();
  ASSERT_TRUE(trip.succeeds(loop));
  EXPECT_EQ(shown("<"), "＜") << "the answer was that of another daemon";
}

TEST_F(DesktopNotifications, ReadTheSameWithAndWithoutMarkupIfCapabilitiesAreUnknown) {
  for (const auto& behaviour : {StubService::refuses(SD_BUS_ERROR_UNKNOWN_METHOD),
                                StubService::returns("u", 7), StubService::returns("")}) {
    start(behaviour);
    EXPECT_EQ(shown("<a> & b"), "＜a> ＆ b");
  }
}

TEST_F(DesktopNotifications, AreDroppedWithoutADaemon) {
  connect();
  add("lost", "");
  ASSERT_TRUE(trip.succeeds(loop));
  start(plain);
  add("found", "");
  ASSERT_TRUE(comesTo(2));
  EXPECT_EQ(daemon->calls(), (Calls{question, notify("found", "")}));
}

TEST_F(DesktopNotifications, GoOnAfterTheBusHasRestarted) {
  start(plain);
  daemon.reset();
  bus.stop();
  add("lost", "");
  bus.start();
  ASSERT_TRUE(comesTrue(loop, [this] { return trip.connections == 2; }));
  start(markup);
  EXPECT_EQ(shown("<"), "&lt;");
}

TEST_F(DesktopNotifications, AreDroppedWhileTheBusAcceptsNothing) {
  daemon = serve(plain);
  bus.freeze();
  sessionBus.connect();
  EXPECT_LT(durationOf([this] {
              for (int number = 0; number < 1000; ++number) add("meanwhile", "");
            }),
            soon);
  bus.thaw();
  ASSERT_TRUE(trip.succeeds(loop));
  add("after", "");
  EXPECT_TRUE(comesTrueElsewhere(loop, [this] { return lastCall() == notify("after", ""); }));
  EXPECT_LT(daemon->calls().size(), 100u);
  EXPECT_GT(daemon->calls().size(), 10u);
  bus.freeze();
  EXPECT_LT(durationOf([this] { notifications.reset(); }), soon);
  bus.thaw();
}

}  // namespace
}  // namespace kestrune::testing
