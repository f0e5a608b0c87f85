#include <gtest/gtest.h>

#include "tests/rig/Stranger.h"
#include "tests/rig/TrayDesk.h"

namespace kestrune::testing {
namespace {

constexpr Seconds atOnce{5.0};  // far below the 25 s after which a call to a frozen (SIGSTOP) bus times out
using Registrations = std::vector<std::string>;

Menu oneRow(const std::string& title) {
  return {{{.id = 1, .title = title}}};
}

StatusButton buttonWith(const std::string& toolTip) {
  StatusButton button;
  button.toolTip = toolTip;
  return button;
}

struct TrayRegistration : EmptyDesk {
  void showItem() {
    bus.connect();
    item = bar.statusItem(squareStatusItemLength);
  }
  /// Starts the bus and a tray. Returns whether the tray gets the item.
  bool showsItem() {
    daemon.start();
    showTray();
    showItem();
    return host->hasItem();
  }
  std::string label() { return host->menu("GetProperty", "is", 1, "label"); }
};

TEST_F(TrayRegistration, IsRepeatedWhenTheWatcherRestarts) {
  ASSERT_TRUE(showsItem());
  item->setMenu(oneRow("still here"));
  for (int restart = 0; restart < 3; ++restart) {
    showTray();
    ASSERT_TRUE(host->hasItem()) << "after restart " << restart;
    EXPECT_EQ(label(), "s 'still here'");
  }
  EXPECT_EQ(probe.connections, 1);
}

TEST_F(TrayRegistration, IsRepeatedWhenAHostAppears) {
  ASSERT_TRUE(showsItem());
  host->announceHost();
  EXPECT_TRUE(comesTrue(loop, [this] { return host->registrations.size() == 2; }));
}

TEST_F(TrayRegistration, IsNotRepeatedForUnicastSignals) {
  ASSERT_TRUE(showsItem());
  Stranger stranger(daemon);
  stranger.tellOfOwner(host->itemName(), StatusNotifierItem::watcherName, "", ":1.99");
  stranger.tell(host->itemName(), StatusNotifierItem::watcherPath, StatusNotifierItem::watcherName,
                "StatusNotifierHostRegistered", "");
  host->catchUp();
  EXPECT_EQ(host->registrations.size(), 1U);
}

TEST_F(TrayRegistration, IsRepeatedAfterARefusal) {
  daemon.start();
  showTray("org.example.Error.NoHost");
  showItem();
  ASSERT_TRUE(host->hasItem());
  host->announceHost();
  ASSERT_TRUE(comesTrue(loop, [this] { return host->registrations.size() == 2; }));
  probe.catchUp(loop);
  EXPECT_EQ(registrations, 0);
  showTray();
  EXPECT_TRUE(host->hasItem());
  EXPECT_TRUE(comesTrue(loop, [this] { return registrations == 1; }));
}

TEST_F(TrayRegistration, IsRepeatedAfterABusRestart) {
  ASSERT_TRUE(showsItem());
  item->setButton(buttonWith("tip"));
  item->setMenu(oneRow("before"));
  host.reset();
  for (int restart = 1; restart <= 2; ++restart) {
    daemon.stop();
    ASSERT_TRUE(comesTrue(loop, [this, restart] { return probe.losses == restart; }));
    item->setMenu(oneRow("meanwhile"));
    daemon.start();
    ASSERT_TRUE(comesTrue(loop, [this, restart] { return probe.connections == restart + 1; }));
    showTray();
    ASSERT_TRUE(host->hasItem());
    EXPECT_EQ(label(), "s 'meanwhile'");
    EXPECT_EQ(host->property("ToolTip"), "(sa(iiay)ss) ('', [], 'tip', '')");
    host.reset();
  }
}

TEST_F(TrayRegistration, DoesNotBlockOnAFrozenBus) {
  ASSERT_TRUE(showsItem());
  item->setMenu(oneRow("before"));
  host->catchUp();
  daemon.freeze();
  EXPECT_LT(durationOf([this] {
              item->setButton(buttonWith("tip"));
              item->setMenu(oneRow("after"));
              settleQueue(loop);
            }),
            atOnce);
  daemon.thaw();
  EXPECT_EQ(label(), "s 'after'");
  EXPECT_EQ(probe.connections, 1);
  daemon.freeze();
  EXPECT_LT(durationOf([this] { item.reset(); }), atOnce);
  daemon.thaw();
}

TEST_F(TrayRegistration, EndsWithTheItem) {
  ASSERT_TRUE(showsItem());
  item.reset();
  EXPECT_EQ(host->property("Id"), "error org.freedesktop.DBus.Error.UnknownObject");
  EXPECT_EQ(host->rows(), Registrations{"error org.freedesktop.DBus.Error.UnknownObject"});
}

}  // namespace
}  // namespace kestrune::testing
