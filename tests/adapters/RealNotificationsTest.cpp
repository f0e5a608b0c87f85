#include "adapters/desktop/DesktopNotifications.h"
#include "tests/rig/BusText.h"
#include "tests/rig/FileTest.h"
#include "tests/rig/PrivateBus.h"
#include "tests/rig/RealDesktop.h"
#include "tests/rig/RoundTrip.h"
#include "tests/rig/SignalState.h"

// Tests of the notifications with a real daemon (dunst).

namespace kestrune::testing {
namespace {

struct RealDaemon : ::testing::Test {
  void SetUp() override {
    const std::string control = contentsOf("/usr/bin/dunstctl");
    ASSERT_NE(control, "") << "dunst is missing";
    if (control.find("NotificationListHistory") == std::string::npos &&
        std::getenv("KESTRUNE_NO_SKIPS") == nullptr) {
      GTEST_SKIP() << "needs dunst 1.7.2 or later, which tells what it has shown";
    }
  }
  void configure(const std::string& markup) {
    std::ofstream(screen.home.file("dunstrc"))
        << "[global]\nstack_duplicates = no\nmarkup = " << markup << "\n";
  }
  std::vector<std::string> command() const { return {"dunst", "-conf", screen.home.file("dunstrc")}; }

  /// Starts the daemon. Returns when the client knows whether the daemon supports markup.
  void startDaemon(const std::string& markup) {
    bus.start();
    configure(markup);
    daemon = std::make_unique<RealProgram>(command(), screen.variables());
    sessionBus.connect();
    ASSERT_GE(sd_bus_open_user(&caller), 0);
    ASSERT_TRUE(comesTrueElsewhere(loop, [this] { return history() == "[]"; })) << daemon->errors();
    // Each round trip of this test gives the client time for one step. The client needs three steps: it
    // learns that the daemon owns the bus name, it sends GetCapabilities, and it receives the reply.
    for (int trips = 0; trips < 3; ++trips) {
      ASSERT_TRUE(trip.succeeds(loop));
      history();
    }
  }
  ~RealDaemon() override { sd_bus_flush_close_unref(caller); }

  BusMessage ask(const char* member) const {
    sd_bus_message* reply = nullptr;
    sd_bus_call_method(caller, "org.freedesktop.Notifications", "/org/freedesktop/Notifications",
                       "org.dunstproject.cmd0", member, nullptr, &reply, "");
    return BusMessage(reply);
  }

  /// Returns the closed notifications, the newest first.
  std::string history() const { return textOf(ask("NotificationListHistory")); }
  /// Expects the client's name, the client's logo, `summary` and `message` among the closed notifications.
  void expectClosed(const std::string& summary, const std::string& message) const {
    const std::string closed = history();
    for (const auto& [name, value] : {std::pair{"appname", std::string("Kestrune")},
                                      {"icon_path", logo},
                                      {"summary", summary},
                                      {"message", message}}) {
      EXPECT_NE(closed.find("'" + std::string(name) + "': s '" + value + "'"), std::string::npos) << closed;
    }
  }

  bool hasShown(unsigned count) {
    return comesTrueElsewhere(loop, [this, count] {
      sd_bus_message* reply = nullptr;
      sd_bus_get_property(caller, "org.freedesktop.Notifications", "/org/freedesktop/Notifications",
                          "org.dunstproject.cmd0", "displayedLength", nullptr, &reply, "u");
      return textOf(BusMessage(reply)) == "u " + std::to_string(count);
    });
  }

  PrivateBus bus;
  SignalState restored;
  EventLoop loop;
  SessionBus sessionBus{loop};
  RealDisplay screen;
  std::unique_ptr<RealProgram> daemon;
  const std::string logo = SOURCE_FOLDER "/resources/codex-menubar-64.png";
  kestrune::DesktopNotifications notifications{sessionBus, logo};
  RoundTrip trip{sessionBus};
  sd_bus* caller = nullptr;
};

TEST_F(RealDaemon, ShowsTextsLiterallyAlthoughItReadsMarkup) {
  startDaemon("full");
  notifications.add({"1", "a <b> & c", "<i>x</i> & \"y\"\n&amp; 換網 🟢"});
  notifications.add({"2", "a <b> & c", "<i>x</i> & \"y\"\n&amp; 換網 🟢"});
  ASSERT_TRUE(hasShown(2)) << daemon->errors();
  ask("NotificationCloseAll");
  expectClosed("a <b> & c",
               "<b>a &lt;b&gt; &amp; c</b>\n&lt;i&gt;x&lt;/i&gt; &amp; \"y\"\n&amp;amp; 換網 🟢");
  EXPECT_EQ(daemon->errors(), "");
}

TEST_F(RealDaemon, WithdrawsALastingNotification) {
  startDaemon("full");
  for (const char* const each : {"advice", "other"}) notifications.add({each, each, "b", true});
  ASSERT_TRUE(hasShown(2)) << daemon->errors();
  notifications.withdraw("advice");
  ASSERT_TRUE(hasShown(1)) << daemon->errors();
  expectClosed("advice", "<b>advice</b>\nb");
  EXPECT_EQ(history().find("other"), std::string::npos);
}

TEST_F(RealDaemon, IsStartedByTheBus) {
  PrivateBus startingBus;
  configure("full");
  startingBus.add("org.freedesktop.Notifications", "/usr/bin/dunst -conf " + screen.home.file("dunstrc"));
  startingBus.start(screen.variables());
  sessionBus.connect();
  ASSERT_GE(sd_bus_open_user(&caller), 0);
  notifications.add({"1", "started", "<&>"});
  ASSERT_TRUE(hasShown(1));
  ask("NotificationCloseAll");
  expectClosed("started", "<b>started</b>\n＜＆>");
}

}  // namespace
}  // namespace kestrune::testing
