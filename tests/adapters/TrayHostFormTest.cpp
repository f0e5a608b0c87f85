#include <regex>

#include "tests/rig/RecordingTarget.h"
#include "tests/rig/Soak.h"
#include "tests/rig/StubService.h"
#include "tests/rig/TrayDesk.h"
#include "text/Text.h"

namespace kestrune::testing {
namespace {

using News = std::vector<std::string>;

constexpr auto gnomeShell = "org.gnome.Shell";
constexpr auto plasma = "org.kde.plasmashell";
constexpr auto lxqt = "org.lxqt.session";
constexpr auto indicators = "org.ayatana.indicator.application";
constexpr auto flat = "1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22 23 24 25 26 27 28 29";
constexpr auto withSubmenus =
    "1 2(3 4 5 6 7 8 9 10 11) 12 13 14 15 16 17 18 19 20(21 22 23 24 25 26 27) 28 29";

/// Reads one row of a GetLayout reply. Returns "ID", or "ID(IDs in the submenu)" for a row with a submenu.
std::string nextRow(sd_bus_message* message) {
  int id = 0;
  std::string children;
  EXPECT_GE(sd_bus_message_enter_container(message, 'r', "ia{sv}av"), 0);
  EXPECT_GE(sd_bus_message_read(message, "i", &id), 0);
  EXPECT_GE(sd_bus_message_skip(message, "a{sv}"), 0);
  EXPECT_GE(sd_bus_message_enter_container(message, 'a', "v"), 0);
  while (sd_bus_message_enter_container(message, 'v', "(ia{sv}av)") > 0) {
    children += (children.empty() ? "" : " ") + nextRow(message);
    sd_bus_message_exit_container(message);
  }
  EXPECT_GE(sd_bus_message_exit_container(message), 0);
  EXPECT_GE(sd_bus_message_exit_container(message), 0);
  return std::to_string(id) + (children.empty() ? "" : "(" + children + ")");
}

/// A client with a menu of 29 rows. `runOn` starts a tray host for this client.
struct TrayForm : EmptyDesk {
  TrayForm() {
    for (int id = 1; id <= 29; ++id)
      menu.items.push_back({.id = id, .title = "row", .action = "act", .target = target});
    for (const int id : {12, 19, 28}) row(id) = {.id = id, .isSeparator = true};
    for (const int id : {1, 2, 3, 11, 13, 20}) row(id).enabled = false;
    row(26).keyEquivalent = ",";
    daemon.start();
    bus.connect();
    item->addToStatusBar(StatusItem::squareLength);
    item->setMenu(menu);
  }

  MenuItem& row(int id) { return menu.items.at(static_cast<std::size_t>(id - 1)); }

  /// If `other` is not null, first starts a program that owns the bus name `other` and is no tray host. Then
  /// starts a tray host that owns the bus names `names`.
  void runOn(const std::vector<const char*>& names, const char* other = nullptr) {
    program.reset();
    if (other != nullptr)
      program = std::make_unique<StubService>(daemon.address(), other, StubService::offersNothing());
    showTray({}, names);
    ASSERT_TRUE(host->hasItem());
    host->news();
  }

  std::string layout(int parent = 0, int depth = -1) {
    const BusMessage reply = host->call(TrayHost::menuPath, TrayHost::menuInterface, "GetLayout", "iias",
                                        parent, depth, 1, "children-display");
    EXPECT_EQ(sd_bus_message_skip(reply.get(), "u"), 1) << textOf(reply);
    const std::string root = nextRow(reply.get());
    return parent == 0 && root.size() > 3 ? root.substr(2, root.size() - 3) : root;
  }
  std::string property(int id, const char* name) { return host->menu("GetProperty", "is", id, name); }
  std::string labelOf(const std::string& title) {
    row(2).title = title;
    item->setMenu(menu);
    const std::string label = property(2, "label");
    return label.substr(3, label.size() - 4);  // cuts off the leading "s '" and the closing "'"
  }
  std::string clicked(const char* method = "Activate") {
    const std::string answer =
        textOf(host->call(TrayHost::itemPath, TrayHost::itemInterface, method, "ii", 0, 0));
    settleQueue(loop);
    return answer;
  }

  std::shared_ptr<RecordingTarget> target = std::make_shared<RecordingTarget>();
  Menu menu;
  std::unique_ptr<StubService> program;
};

// Returns what gnome-shell-extension-appindicator 46 and 59 show for `label` (dbusMenu.js, _updateLabel).
std::string asGnomeShellShows(const std::string& label) {
  static const std::regex rule("_([^_])");
  return std::regex_replace(label, rule, "$1", std::regex_constants::format_first_only);
}

// Returns what libdbusmenu-qt 0.9.3 and plasma-workspace 6.3.6 show for `label` (utils.cpp,
// swapMnemonicChar): "__" becomes "_", and a single "_" is taken out.
std::string asQtShows(const std::string& label) {
  std::string shown;
  for (std::size_t at = 0; at < label.size(); ++at) {
    if (label[at] == '_' && ++at == label.size()) break;
    shown += label[at];
  }
  return shown;
}

// Returns what libdbusmenu 18.10 (genericmenuitem.c, sanitize_label) shows for `label`. Call this only if
// every underscore in `label` is doubled.
std::string asGtkShows(const std::string& label) {
  return replacingAll(label, "__", "_");
}

TEST_F(TrayForm, GnomeShellGetsTwoSubmenus) {
  runOn({gnomeShell});
  EXPECT_EQ(layout(), withSubmenus);
  for (const int id : {2, 20}) {
    EXPECT_EQ(property(id, "children-display"), "s 'submenu'");
    EXPECT_EQ(property(id, "enabled"), "b true") << "what is disabled does not open";
    EXPECT_EQ(property(id, "label"), "s 'row'");
  }
  EXPECT_EQ(property(3, "enabled"), "b false");
}

TEST_F(TrayForm, GnomeShellGetsThePartOfTheLayoutThatItAsksFor) {
  runOn({gnomeShell});
  EXPECT_EQ(layout(0, 1), "1 2 12 13 14 15 16 17 18 19 20 28 29");
  EXPECT_EQ(layout(0, 0), "0");
  EXPECT_EQ(layout(2), "2(3 4 5 6 7 8 9 10 11)");
  EXPECT_EQ(layout(2, 0), "2");
  EXPECT_EQ(layout(21), "21");
  EXPECT_NE(host->menu("GetGroupProperties", "aias", 0, 1, "type").find("(3, {}), (4, {})"),
            std::string::npos);
}

TEST_F(TrayForm, RowsOfASubmenuCanBeChosen) {
  runOn({gnomeShell});
  for (const int id : {2, 20, 3, 21}) EXPECT_EQ(host->clicked(id), "");
  settleQueue(loop);
  EXPECT_EQ(target->performed, CallLog{"act"});
}

TEST_F(TrayForm, MenuWithoutSubmenuRowsStaysFlat) {
  runOn({gnomeShell});
  item->setMenu({{{.id = 3, .title = "a"}, {.id = 20, .title = "b"}}});
  EXPECT_EQ(layout(), "3 20");
  EXPECT_EQ(property(20, "children-display"), "error org.freedesktop.DBus.Error.InvalidArgs");
}

TEST_F(TrayForm, OtherHostsGetAFlatMenu) {
  runOn({});
  EXPECT_EQ(layout(), flat);
  runOn({}, gnomeShell);  // GNOME Shell runs, but another program is the tray host
  EXPECT_EQ(layout(), flat);
  runOn({}, plasma);
  EXPECT_EQ(layout(), flat);
  runOn({gnomeShell, "org.gnome.Flashback"});
  EXPECT_EQ(layout(), flat);
}

TEST_F(TrayForm, TokensOfGnomeShellAreRefused) {
  runOn({gnomeShell});
  EXPECT_EQ(textOf(host->call(TrayHost::itemPath, TrayHost::itemInterface, "ProvideXdgActivationToken", "s",
                              "token")),
            "error org.freedesktop.DBus.Error.UnknownMethod");
}

TEST_F(TrayForm, ChangeOfTheFormIsSentToTheHost) {
  runOn({});
  layout();
  host->own(gnomeShell);
  const std::string change = "{'children-display': s 'submenu', 'enabled': b true}";
  EXPECT_EQ(host->news(),
            (News{"LayoutUpdated 3, 0",
                  "ItemsPropertiesUpdated [(2, " + change + "), (20, " + change + ")], []", "NewIcon"}));
  EXPECT_EQ(layout(), withSubmenus);
  row(9).title = "new";
  item->setMenu(menu);
  EXPECT_EQ(host->news(), News{"ItemsPropertiesUpdated [(9, {'label': s 'new'})], []"});
  host->disown(gnomeShell);
  EXPECT_EQ(host->news(), (News{"LayoutUpdated 5, 0",
                                "ItemsPropertiesUpdated [(2, {'enabled': b false}), (20, {'enabled': b "
                                "false})], [(2, ['children-display']), (20, ['children-display'])]",
                                "NewIcon"}));
  EXPECT_EQ(layout(), flat);
}

TEST_F(TrayForm, FormIsFoundAgainAfterABusRestart) {
  runOn({gnomeShell});
  host.reset();
  daemon.stop();
  ASSERT_TRUE(comesTrue(loop, [this] { return probe.losses == 1; }));
  daemon.start();
  ASSERT_TRUE(comesTrue(loop, [this] { return probe.connections == 2; }));
  runOn({});
  EXPECT_EQ(layout(), flat);
}

TEST_F(TrayForm, UnderscoresAreKeptOnEveryHost) {
  Chance chance(20263);
  static const std::vector<std::string> parts{"_", "_", "_", "a", "中", "&", " ", "<", "🟢"};
  const auto check = [&](std::string (*shown)(const std::string&)) {
    for (int time = 0; time < 300; ++time) {
      std::string title = "x";
      for (std::size_t left = chance.below(12); left > 0; --left) title += chance.among(parts);
      ASSERT_EQ(shown(labelOf(title)), title);
    }
    ASSERT_EQ(shown(labelOf("my_cool_project")), "my_cool_project");
    ASSERT_EQ(shown(labelOf("__init__.py")), "__init__.py");
    ASSERT_EQ(shown(labelOf("_")), "_");
  };
  runOn({gnomeShell});
  check(asGnomeShellShows);
  runOn({});
  check(asGtkShows);
  runOn({}, plasma);
  check(asQtShows);
}

TEST_F(TrayForm, ActivateFailsOnPlasmaSoThatItOpensTheMenu) {
  runOn({}, plasma);
  EXPECT_EQ(clicked(), "error org.freedesktop.DBus.Error.NotSupported");
  EXPECT_EQ(clicks, 0);
  EXPECT_EQ(clicked("SecondaryActivate"), "");
  EXPECT_EQ(clicks, 1);
}

TEST_F(TrayForm, ActivateOpensTheWindowOnOtherHosts) {
  int expected = 0;
  for (const auto* const name : {gnomeShell, lxqt, "org.example.Panel"}) {
    runOn({name});
    EXPECT_EQ(clicked(), "") << name;
    EXPECT_EQ(clicks, ++expected) << name;
  }
}

TEST_F(TrayForm, ShortcutKeysAreNamedAsTheHostReadsThem) {
  constexpr auto byName = "aas [['Control', 'comma']]";
  constexpr auto byCharacter = "aas [['Control', ',']]";
  runOn({});
  EXPECT_EQ(property(26, "shortcut"), byName);
  for (const auto* const qtDesktop : {plasma, lxqt}) {
    host->own(qtDesktop);
    EXPECT_EQ(property(26, "shortcut"), byCharacter) << qtDesktop;
    host->disown(qtDesktop);
    EXPECT_EQ(property(26, "shortcut"), byName) << qtDesktop;
  }
}

TEST_F(TrayForm, IndicatorAppletsGetTheFileOfTheIcon) {
  bundle.resources = {{"codex-menubar.png", "/share/logo.png"},
                      {"codex-menubar-grey.png", "/share/grey.png"}};
  const auto show = [this](const ImageRef& image) {
    item->setButton({.image = image});
    return host->property("IconName");
  };
  runOn({}, indicators);
  EXPECT_EQ(show(nullptr), "s ''");
  EXPECT_EQ(show(makeTestImage(2, 10, 20, 30)), "s '/share/logo.png'");
  EXPECT_EQ(show(makeTestImage(2, 20, 20, 20)), "s '/share/grey.png'");
  bundle.resources["codex-menubar-grey.png"] = "/not\xFFtext/grey.png";
  EXPECT_EQ(show(makeTestImage(2, 20, 20, 20)), "s ''");
  bundle.resources.clear();
  EXPECT_EQ(show(makeTestImage(2, 20, 20, 20)), "s ''");
  bundle.resources["codex-menubar.png"] = "/share/logo.png";
  runOn({"org.mate.panel.applet.NotificationAreaAppletFactory"}, indicators);
  EXPECT_EQ(show(makeTestImage(2, 10, 20, 30)), "s ''");
}

}  // namespace
}  // namespace kestrune::testing
