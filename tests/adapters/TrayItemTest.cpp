#include "tests/rig/Stranger.h"
#include "tests/rig/TrayDesk.h"

namespace kestrune::testing {
namespace {

using News = std::vector<std::string>;

using TrayItem = TrayDesk;

TEST_F(TrayItem, ExportsAllPropertiesAlsoEmptyOnes) {
  EXPECT_EQ(textOf(host->call(TrayHost::itemPath, "org.freedesktop.DBus.Properties", "GetAll", "s",
                              TrayHost::itemInterface)),
            "{'Category': s 'ApplicationStatus', 'Id': s 'kestrune-menu-client', 'Title': s 'Kestrune', "
            "'Status': s 'Active', 'WindowId': i 0, 'IconThemePath': s '', "
            "'IconName': s '', 'IconPixmap': a(iiay) [], 'IconAccessibleDesc': s '', "
            "'OverlayIconName': s '', 'OverlayIconPixmap': a(iiay) [], "
            "'AttentionIconName': s '', 'AttentionIconPixmap': a(iiay) [], 'AttentionAccessibleDesc': s '', "
            "'AttentionMovieName': s '', "
            "'ToolTip': (sa(iiay)ss) ('', [], '', ''), 'ItemIsMenu': b true, 'Menu': o '/MenuBar'}");
}

TEST_F(TrayItem, SendsPixelsAsArgb) {
  auto image = std::make_shared<Image>();
  image->bitmaps.push_back({2, 1, {1, 2, 3, 4, 250, 0, 128, 255}});
  item->setButton({.image = image});
  EXPECT_EQ(host->property("IconPixmap"), "a(iiay) [(2, 1, [4, 1, 2, 3, 255, 250, 0, 128])]");
}

TEST_F(TrayItem, SignalsOnlyWhatChanged) {
  StatusButton button{.image = makeTestImage(1, 10, 20, 30), .toolTip = "tip"};
  const auto newsOf = [&] {
    item->setButton(button);
    return host->news();
  };
  EXPECT_EQ(newsOf(), (News{"NewIcon", "NewToolTip"}));
  button.image = makeTestImage(1, 10, 20, 30);
  EXPECT_EQ(newsOf(), News{}) << "the pixels are the same";
  button.image = makeTestImage(1, 40, 50, 60);
  EXPECT_EQ(newsOf(), News{"NewIcon"});
  EXPECT_EQ(host->property("IconPixmap"), "a(iiay) [(1, 1, [255, 40, 50, 60])]");
  button.accessibilityLabel = "R&D < all_of_it";
  EXPECT_EQ(newsOf(), News{"NewIcon"});
  EXPECT_EQ(host->property("IconAccessibleDesc"), "s 'R＆D ＜ all_of_it'");
  button.toolTip = "<b>R&D</b>";
  EXPECT_EQ(newsOf(), News{"NewToolTip"});
  EXPECT_EQ(host->property("ToolTip"), "(sa(iiay)ss) ('', [], '＜b>R＆D＜/b>', '')");
  button = {};
  EXPECT_EQ(newsOf(), (News{"NewIcon", "NewToolTip"}));
  EXPECT_EQ(host->property("IconPixmap"), "a(iiay) []");
  EXPECT_EQ(host->property("ToolTip"), "(sa(iiay)ss) ('', [], '', '')");
  EXPECT_EQ(host->property("IconAccessibleDesc"), "s ''");
}

TEST_F(TrayItem, CountsEveryButtonAsAClick) {
  int expected = 0;
  for (const char* const method : {"Activate", "SecondaryActivate", "ContextMenu"}) {
    EXPECT_EQ(textOf(host->call(TrayHost::itemPath, TrayHost::itemInterface, method, "ii", 3, 4)), "");
    settleQueue(loop);
    EXPECT_EQ(clicks, ++expected) << method;
  }
}

TEST_F(TrayItem, IgnoresScroll) {
  EXPECT_EQ(textOf(host->call(TrayHost::itemPath, TrayHost::itemInterface, "Scroll", "is", 120, "vertical")),
            "");
  settleQueue(loop);
  EXPECT_EQ(clicks, 0);
  EXPECT_EQ(host->news(), News{});
}

TEST_F(TrayItem, PassesTheActivationTokenOn) {
  EXPECT_EQ(textOf(host->call(TrayHost::itemPath, TrayHost::itemInterface, "ProvideXdgActivationToken", "s",
                              "token")),
            "");
  EXPECT_EQ(lastToken, "token");
}

Menu oneRow(const std::string& title) {
  return {{{.id = 1, .title = title}}};
}

struct TrayRegistration : TrayDesk {
  std::string label() { return host->menu("GetProperty", "is", 1, "label"); }
};

TEST_F(TrayRegistration, IsRepeatedWhenTheWatcherRestarts) {
  item->setMenu(oneRow("still here"));
  for (int restart = 0; restart < 3; ++restart) {
    showTray();
    ASSERT_TRUE(host->hasItem()) << "after restart " << restart;
    EXPECT_EQ(label(), "s 'still here'");
  }
  EXPECT_EQ(probe.connections, 1);
}

TEST_F(TrayRegistration, IsNotRepeatedForUnicastSignals) {
  Stranger stranger(daemon);
  stranger.tellOfOwner(host->itemName(), watcherName, "", ":1.99");
  stranger.tell(host->itemName(), watcherPath, watcherName, "StatusNotifierHostRegistered", "");
  host->catchUp();
  EXPECT_EQ(host->registrations.size(), 1U);
}

TEST_F(TrayRegistration, IsRepeatedWhenAHostAppearsAndAfterARefusal) {
  ASSERT_TRUE(comesTrue(loop, [this] { return registrations == 1; }));
  showTray("org.example.Error.NoHost");
  ASSERT_TRUE(host->hasItem());
  host->announceHost();
  ASSERT_TRUE(comesTrue(loop, [this] { return host->registrations.size() == 2; }));
  probe.catchUp(loop);
  EXPECT_EQ(registrations, 1);
  showTray();
  EXPECT_TRUE(host->hasItem());
  EXPECT_TRUE(comesTrue(loop, [this] { return registrations == 2; }));
}

TEST_F(TrayRegistration, IsRepeatedAfterABusRestart) {
  item->setButton({.toolTip = "tip"});
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
  item->setMenu(oneRow("before"));
  host->catchUp();
  daemon.freeze();
  EXPECT_LT(durationOf([this] {
              item->setButton({.toolTip = "tip"});
              item->setMenu(oneRow("after"));
              settleQueue(loop);
            }),
            soon);
  daemon.thaw();
  EXPECT_EQ(label(), "s 'after'");
  EXPECT_EQ(probe.connections, 1);
  daemon.freeze();
  EXPECT_LT(durationOf([this] { item.reset(); }), soon);
  daemon.thaw();
}

TEST_F(TrayRegistration, EndsWithTheItem) {
  item.reset();
  EXPECT_EQ(host->property("Id"), "error org.freedesktop.DBus.Error.UnknownObject");
  EXPECT_EQ(host->layout(), "error org.freedesktop.DBus.Error.UnknownObject");
}

}  // namespace
}  // namespace kestrune::testing
