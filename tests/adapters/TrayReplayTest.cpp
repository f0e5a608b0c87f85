#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tests/rig/Soak.h"
#include "tests/rig/TrayDesk.h"
#include "text/Text.h"

namespace kestrune::testing {
namespace {

using Properties = std::map<std::string, std::string>;
using Rows = std::vector<std::pair<int, Properties>>;

/// What a host has to show for `menu`.
Rows rowsOf(const Menu& menu) {
  Rows rows;
  for (const auto& item : menu.items) {
    if (item.isSeparator) {
      rows.push_back({item.id, {{"type", "s 'separator'"}}});
      continue;
    }
    Properties properties{{"label", "s '" + replacingAll(displayRow(item.title), "_", "__") + "'"},
                          {"enabled", item.enabled ? "b true" : "b false"}};
    if (item.checked) {
      properties["toggle-type"] = "s 'checkmark'";
      properties["toggle-state"] = *item.checked ? "i 1" : "i 0";
    }
    if (item.keyEquivalent == ",") {
      properties["shortcut"] = "aas [['Control', 'comma']]";
    } else if (item.keyEquivalent == "R") {
      properties["shortcut"] = "aas [['Control', 'Shift', 'r']]";
    } else if (!item.keyEquivalent.empty()) {
      properties["shortcut"] = "aas [['Control', '" + item.keyEquivalent + "']]";
    }
    rows.push_back({item.id, std::move(properties)});
  }
  return rows;
}

/// A host that asks for the rows once, and again only when it is told that they are others; in between it
/// believes what it is told of them.
class TrustingHost {
 public:
  explicit TrustingHost(TrayHost& givenHost) : host(givenHost) {
    sd_bus_slot* slot = nullptr;
    must(sd_bus_match_signal(host.connection(), &slot, nullptr, TrayHost::menuPath, TrayHost::menuInterface,
                             nullptr, &told, this));
    match.reset(slot);
    readLayout();
  }

  /// How many signals came since the last time, once all of them are here.
  std::size_t news() {
    host.catchUp();
    host.signals.clear();
    if (std::exchange(isOutdated, false)) readLayout();
    return std::exchange(signals, 0);
  }

  Rows rows() const {
    Rows all;
    for (const int id : order) all.emplace_back(id, properties.at(id));
    return all;
  }

 private:
  static void must(int result) {
    if (result < 0) throw std::runtime_error("a message that cannot be read");
  }

  static Properties readProperties(sd_bus_message* message) {
    Properties found;
    must(sd_bus_message_enter_container(message, 'a', "{sv}"));
    while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
      const char* name = nullptr;
      must(sd_bus_message_read(message, "s", &name));
      found[name] = detail::nextValue(message);
      must(sd_bus_message_exit_container(message));
    }
    must(sd_bus_message_exit_container(message));
    return found;
  }

  void readLayout() {
    const BusMessage layout =
        host.call(TrayHost::menuPath, TrayHost::menuInterface, "GetLayout", "iias", 0, -1, 0);
    sd_bus_message* const message = layout.get();
    order.clear();
    properties.clear();
    must(sd_bus_message_skip(message, "u"));
    must(sd_bus_message_enter_container(message, 'r', "ia{sv}av"));
    must(sd_bus_message_skip(message, "ia{sv}"));
    must(sd_bus_message_enter_container(message, 'a', "v"));
    while (sd_bus_message_enter_container(message, 'v', "(ia{sv}av)") > 0) {
      must(sd_bus_message_enter_container(message, 'r', "ia{sv}av"));
      order.push_back(0);
      must(sd_bus_message_read(message, "i", &order.back()));
      properties[order.back()] = readProperties(message);
      must(sd_bus_message_skip(message, "av"));
      must(sd_bus_message_exit_container(message));
      must(sd_bus_message_exit_container(message));
    }
  }

  void readUpdates(sd_bus_message* message) {
    int id = 0;
    must(sd_bus_message_enter_container(message, 'a', "(ia{sv})"));
    while (sd_bus_message_enter_container(message, 'r', "ia{sv}") > 0) {
      must(sd_bus_message_read(message, "i", &id));
      for (auto& [name, value] : readProperties(message)) properties.at(id).insert_or_assign(name, value);
      must(sd_bus_message_exit_container(message));
    }
    must(sd_bus_message_exit_container(message));
    must(sd_bus_message_enter_container(message, 'a', "(ias)"));
    while (sd_bus_message_enter_container(message, 'r', "ias") > 0) {
      must(sd_bus_message_read(message, "i", &id));
      must(sd_bus_message_enter_container(message, 'a', "s"));
      for (const char* name = nullptr; sd_bus_message_read(message, "s", &name) > 0;)
        properties.at(id).erase(name);
      must(sd_bus_message_exit_container(message));
      must(sd_bus_message_exit_container(message));
    }
  }

  static int told(sd_bus_message* signal, void* data, sd_bus_error*) {
    auto& self = *static_cast<TrustingHost*>(data);
    ++self.signals;
    // Of rows that it does not know yet, it will know everything.
    if (sd_bus_message_is_signal(signal, nullptr, "LayoutUpdated") > 0) {
      self.isOutdated = true;
    } else if (!self.isOutdated) {
      self.readUpdates(signal);
    }
    sd_bus_message_rewind(signal, 1);
    return 0;
  }

  TrayHost& host;
  BusSlot match;
  std::vector<int> order;
  std::map<int, Properties> properties;
  std::size_t signals = 0;
  bool isOutdated = false;
};

struct TrayReplay : TrayDesk {
  void SetUp() override {
    TrayDesk::SetUp();
    trusting = std::make_unique<TrustingHost>(*host);
  }
  void TearDown() override { trusting.reset(); }

  /// Shows `menu`, and compares what the host made of what it was told.
  void show(const Menu& menu) {
    Rows rows = rowsOf(menu);
    item->setMenu(menu);
    const bool isNew = rows != shown;
    shown = std::move(rows);
    ++(isNew ? changes : repetitions);
    ASSERT_EQ(trusting->news() > 0, isNew) << "menu " << changes + repetitions;
    ASSERT_EQ(trusting->rows(), shown) << "menu " << changes + repetitions;
  }

  std::unique_ptr<TrustingHost> trusting;
  Rows shown;
  int changes = 0;
  int repetitions = 0;
};

/// What chance makes of a menu: nothing, nothing that is seen, some properties, or other rows.
void change(Menu& menu, Chance& chance) {
  static const std::vector<std::string> titles{"status", "status\n", "status\t", "_under_",
                                               "中文",   "a'b",      ""};
  static const std::vector<std::string> keys{"", "", "q", "R", ","};
  const auto fill = [&chance](MenuItem& row) {
    row.isSeparator = chance.comesUp(0.1);
    row.title = chance.among(titles);
    row.keyEquivalent = chance.among(keys);
    row.enabled = chance.comesUp(0.5);
    row.checked = chance.comesUp(0.5) ? std::nullopt : std::optional(chance.comesUp(0.5));
    row.action = chance.comesUp(0.5) ? "act" : "";
  };
  auto& items = menu.items;
  if (chance.comesUp(0.05)) {
    MenuItem row{.id = 1 + static_cast<int>(chance.below(1000))};
    fill(row);
    const auto isSame = [&row](const MenuItem& each) { return each.id == row.id; };
    if (std::none_of(items.begin(), items.end(), isSame)) items.push_back(row);
  }
  if (items.empty()) return;
  if (chance.comesUp(0.05))
    items.erase(items.begin() + static_cast<std::ptrdiff_t>(chance.below(items.size())));
  if (items.size() < 2) return;
  if (chance.comesUp(0.05)) std::swap(items[chance.below(items.size())], items[chance.below(items.size())]);
  if (chance.comesUp(0.3)) return;
  for (std::size_t left = chance.below(4); left > 0; --left) {
    MenuItem& row = items[chance.below(items.size())];
    if (chance.comesUp(0.3)) {
      fill(row);
    } else {
      row.title = chance.among(titles);
    }
  }
}

TEST_F(TrayReplay, OfMenusMadeByChanceLeavesTheHostWithTheRowsThatThereAre) {
  Chance chance(20261);
  Menu menu;
  for (int id = 1; id <= 12; ++id) menu.items.push_back({.id = id, .title = "row"});
  for (int time = 0; time < 3000 && !HasFatalFailure(); ++time) {
    change(menu, chance);
    show(menu);
  }
  EXPECT_GT(changes, 500);
  EXPECT_GT(repetitions, 500);
}

TEST_F(TrayReplay, OfHalfADayOfTheControllerLeavesTheHostWithTheRowsThatThereAre) {
  Soak soak(20262);
  soak.machine.statusBar.whenMenuIsSet = [&] {
    if (!HasFatalFailure()) show(soak.machine.statusBar.menu());
  };
  soak.live(Seconds{12 * 3600.0});
  soak.calmDown();
  EXPECT_GT(changes, 500);
  EXPECT_GT(repetitions, 500);
}

}  // namespace
}  // namespace kestrune::testing
