#include <cstdint>

#include "tests/rig/Memory.h"
#include "tests/rig/RecordingTarget.h"
#include "tests/rig/TrayDesk.h"

namespace kestrune::testing {
namespace {

using namespace std::string_literals;
using Texts = std::vector<std::string>;

constexpr auto invalid = "error org.freedesktop.DBus.Error.InvalidArgs";

struct TrayMenu : TrayDesk {
  void SetUp() override {
    TrayDesk::SetUp();
    item->setMenu(menu);
    settleQueue(loop);
    host->news();
  }

  /// Waits until the client has handled all calls of the tray host. Returns the actions that have run.
  CallLog performed() {
    host->catchUp();
    settleQueue(loop);
    return target->performed;
  }

  std::shared_ptr<RecordingTarget> target = std::make_shared<RecordingTarget>();
  Menu menu{{
      {.id = 1, .title = "status", .enabled = false, .target = target},
      {.id = 2, .isSeparator = true, .target = target},
      {.id = 3, .title = "quit", .action = "quit", .keyEquivalent = "q", .target = target},
      {.id = 4, .title = "off", .action = "switch", .checked = false, .target = target},
      {.id = 5, .title = "on", .action = "other", .checked = true, .target = target},
      {.id = 6, .title = "forbidden", .action = "forbidden", .enabled = false, .target = target},
  }};
};

constexpr auto row1 = "(1, {'enabled': b false, 'label': s 'status'}, [])";
constexpr auto row3 = "(3, {'enabled': b true, 'label': s 'quit', 'shortcut': aas [['Control', 'q']]}, [])";

TEST_F(TrayMenu, ListsItsRowsInOrder) {
  std::string rows;
  for (const std::string row :
       {row1, "(2, {'type': s 'separator'}, [])", row3,
        "(4, {'enabled': b true, 'label': s 'off', 'toggle-state': i 0, 'toggle-type': s 'checkmark'}, [])",
        "(5, {'enabled': b true, 'label': s 'on', 'toggle-state': i 1, 'toggle-type': s 'checkmark'}, [])",
        "(6, {'enabled': b false, 'label': s 'forbidden'}, [])"})
    rows += (rows.empty() ? "" : ", ") + ("(ia{sv}av) " + row);
  EXPECT_EQ(host->layout(), "2, (0, {'children-display': s 'submenu'}, [" + rows + "])");
}

TEST_F(TrayMenu, HasNoRowsAtDepthZero) {
  const std::string all = host->layout();
  EXPECT_EQ(host->menu("GetLayout", "iias", 0, 1, 0), all);
  EXPECT_EQ(host->menu("GetLayout", "iias", 0, INT32_MAX, 0), all);
  EXPECT_EQ(host->menu("GetLayout", "iias", 0, 0, 0), "2, (0, {'children-display': s 'submenu'}, [])");
  EXPECT_EQ(host->menu("GetLayout", "iias", 3, -1, 0), "2, "s + row3);
  EXPECT_EQ(host->menu("GetLayout", "iias", 1, 0, 0), "2, "s + row1);
}

TEST_F(TrayMenu, RefusesUnknownIds) {
  for (const int id : {7, -1, INT32_MAX, INT32_MIN}) {
    EXPECT_EQ(host->menu("GetLayout", "iias", id, -1, 0), invalid) << id;
    EXPECT_EQ(host->menu("GetProperty", "is", id, "label"), invalid) << id;
    EXPECT_EQ(host->menu("AboutToShow", "i", id), invalid) << id;
    EXPECT_EQ(host->clicked(id), invalid) << id;
  }
  EXPECT_EQ(performed(), CallLog{});
}

TEST_F(TrayMenu, ReturnsOnlyTheRequestedProperties) {
  EXPECT_EQ(host->menu("GetLayout", "iias", 3, -1, 2, "label", "no-such-thing"),
            "2, (3, {'label': s 'quit'}, [])");
  EXPECT_EQ(host->menu("GetLayout", "iias", 0, 0, 1, "label"), "2, (0, {}, [])");
  EXPECT_EQ(host->menu("GetLayout", "iias", 3, 0, 1, "no-such-thing"), "2, (3, {}, [])");
  EXPECT_EQ(host->menu("GetLayout", "iias", 2, 0, 1, "label"), "2, (2, {}, [])");
  EXPECT_EQ(host->menu("GetProperty", "is", 3, "label"), "s 'quit'");
  EXPECT_EQ(host->menu("GetProperty", "is", 3, "enabled"), "b true");
  EXPECT_EQ(host->menu("GetProperty", "is", 5, "toggle-state"), "i 1");
  EXPECT_EQ(host->menu("GetProperty", "is", 3, "no-such-thing"), invalid);
}

TEST_F(TrayMenu, ReturnsThePropertiesOfSeveralRowsOrOfAll) {
  EXPECT_EQ(host->menu("GetGroupProperties", "aias", 3, 3, 99, 1, 1, "label"),
            "[(1, {'label': s 'status'}), (3, {'label': s 'quit'})]");
  EXPECT_EQ(host->menu("GetGroupProperties", "aias", 3, 3, 1, 3, 2, "label", "label"),
            "[(1, {'label': s 'status'}), (3, {'label': s 'quit'})]");
  EXPECT_EQ(host->menu("GetGroupProperties", "aias", 2, -5, INT32_MIN, 0), "[]");
  EXPECT_EQ(host->menu("GetGroupProperties", "aias", 1, 2, 0), "[(2, {'type': s 'separator'})]");
  EXPECT_EQ(host->menu("GetGroupProperties", "aias", 0, 2, "enabled", "type"),
            "[(0, {}), (1, {'enabled': b false}), (2, {'type': s 'separator'}), (3, {'enabled': b true}), "
            "(4, {'enabled': b true}), (5, {'enabled': b true}), (6, {'enabled': b false})]");
}

TEST_F(TrayMenu, ExportsVersion3) {
  const auto get = [this](const char* name) {
    return textOf(host->call(TrayHost::menuPath, "org.freedesktop.DBus.Properties", "Get", "ss",
                             TrayHost::menuInterface, name));
  };
  EXPECT_EQ(get("Version"), "u 3");
  EXPECT_EQ(get("TextDirection"), "s 'ltr'");
  EXPECT_EQ(get("Status"), "s 'normal'");
  EXPECT_EQ(get("IconThemePath"), "as []");
}

TEST_F(TrayMenu, RepliesBeforeItRunsTheAction) {
  BusMessage answer;
  bool answeredFirst = false;
  target->onPerform = [&] {
    const auto end = std::chrono::steady_clock::now() + patience;
    while (!answer && std::chrono::steady_clock::now() < end) {
      if (sd_bus_process(host->connection(), nullptr) == 0) sd_bus_wait(host->connection(), 100000);
    }
    answeredFirst = answer != nullptr;
  };
  const BusSlot pending = host->send(answer, TrayHost::menuPath, TrayHost::menuInterface, "Event", "isvu", 3,
                                     "clicked", "i", 0, 0u);
  ASSERT_TRUE(comesTrue(loop, [this] { return !target->performed.empty(); }));
  EXPECT_TRUE(answeredFirst);
}

TEST_F(TrayMenu, IgnoresEventsOtherThanClicks) {
  for (const char* const event : {"opened", "closed", "hovered", "", "CLICKED", "x-vendor-special"}) {
    EXPECT_EQ(host->menu("Event", "isvu", 3, event, "i", 0, 0u), "") << event;
    EXPECT_EQ(host->menu("Event", "isvu", 0, event, "s", "", 0u), "") << event;
  }
  EXPECT_EQ(host->menu("Event", "isvu", 0, "clicked", "i", 0, 0u), "");
  EXPECT_EQ(performed(), CallLog{});
}

TEST_F(TrayMenu, IgnoresClicksOnDisabledRows) {
  for (const int id : {1, 2, 6}) EXPECT_EQ(host->clicked(id), "") << id;
  EXPECT_EQ(performed(), CallLog{});
}

TEST_F(TrayMenu, RunsEachRowOfAGroupOnce) {
  EXPECT_EQ(host->menu("EventGroup", "a(isvu)", 8, 0, "closed", "i", 0, 0u, 3, "clicked", "i", 0, 0u, 3,
                       "clicked", "i", 0, 1u, 77, "clicked", "i", 0, 1u, 4, "hovered", "i", 0, 1u, 4,
                       "clicked", "i", 0, 1u, 3, "clicked", "s", "", 2u, 4, "clicked", "i", 0, 2u),
            "[77]");
  EXPECT_EQ(performed(), (CallLog{"quit", "switch"}));
  EXPECT_EQ(host->clicked(3), "");
  EXPECT_EQ(performed(), (CallLog{"quit", "switch", "quit"}));
}

TEST_F(TrayMenu, ReturnsEachUnknownIdOfAGroupOnce) {
  EXPECT_EQ(host->menu("EventGroup", "a(isvu)", 5, 77, "clicked", "i", 0, 0u, -3, "clicked", "i", 0, 0u, 77,
                       "hovered", "i", 0, 0u, 3, "hovered", "i", 0, 0u, 77, "clicked", "i", 0, 0u),
            "[-3, 77]");
  EXPECT_EQ(performed(), CallLog{});
  EXPECT_EQ(host->menu("EventGroup", "a(isvu)", 2, 77, "clicked", "i", 0, 0u, -3, "clicked", "i", 0, 0u),
            invalid);
  EXPECT_EQ(host->menu("AboutToShowGroup", "ai", 2, 77, -3), invalid);
}

TEST_F(TrayMenu, NeedsNoUpdateAtAboutToShow) {
  EXPECT_EQ(host->menu("AboutToShow", "i", 0), "false");
  EXPECT_EQ(host->menu("AboutToShow", "i", 3), "false");
  EXPECT_EQ(host->menu("AboutToShowGroup", "ai", 4, 0, 3, 99, -1), "[], [99, -1]");
  EXPECT_EQ(host->news(), Texts{});
}

TEST_F(TrayMenu, RunsTheActionThatWasShownAtTheClick) {
  target->onPerform = [this] { item->setMenu({}); };
  EXPECT_EQ(host->menu("EventGroup", "a(isvu)", 2, 3, "clicked", "i", 0, 0u, 4, "clicked", "i", 0, 0u), "[]");
  EXPECT_EQ(performed(), (CallLog{"quit", "switch"}));
  EXPECT_EQ(host->layout(), "3, (0, {'children-display': s 'submenu'}, [])");
}

struct TrayMenuChanges : TrayMenu {
  /// Sets `menu`, and returns the signals that the host receives.
  Texts newsOf() {
    item->setMenu(menu);
    return host->news();
  }

  TrayMenuChanges() { menu.items.resize(4); }
};

TEST_F(TrayMenuChanges, SendOnlyTheChangedProperty) {
  menu.items[0].title = "other";
  EXPECT_EQ(newsOf(), Texts{"ItemsPropertiesUpdated [(1, {'label': s 'other'})], []"});
  menu.items[3].checked = true;
  EXPECT_EQ(newsOf(), Texts{"ItemsPropertiesUpdated [(4, {'toggle-state': i 1})], []"});
  menu.items[2].enabled = false;
  EXPECT_EQ(newsOf(), Texts{"ItemsPropertiesUpdated [(3, {'enabled': b false})], []"});
  menu.items[2].keyEquivalent = "Q";
  EXPECT_EQ(newsOf(),
            Texts{"ItemsPropertiesUpdated [(3, {'shortcut': aas [['Control', 'Shift', 'q']]})], []"});
}

TEST_F(TrayMenuChanges, SendTheCheckMarkAgainAfterAClick) {
  host->clicked(4);
  host->clicked(3);
  EXPECT_EQ(newsOf(), Texts{"ItemsPropertiesUpdated [(4, {'toggle-state': i 0})], []"});
  EXPECT_EQ(newsOf(), Texts{});
}

TEST_F(TrayMenuChanges, SendTheNamesOfRemovedProperties) {
  menu.items[2].keyEquivalent = "";
  menu.items[2].title = "stopping";
  menu.items[3].checked.reset();
  EXPECT_EQ(newsOf(), Texts{"ItemsPropertiesUpdated [(3, {'label': s 'stopping'})], [(3, ['shortcut']), (4, "
                            "['toggle-state', 'toggle-type'])]"});
  menu.items[0].title = "status\n";
  EXPECT_EQ(newsOf(), Texts{"ItemsPropertiesUpdated [(1, {'label': s 'status '})], []"});
  menu.items[0].title = "status\t";
  EXPECT_EQ(newsOf(), Texts{}) << "it looks the same";
}

TEST_F(TrayMenuChanges, OfTheListOfRowsSendLayoutUpdated) {
  menu.items.push_back({.id = 5, .title = "more"});
  EXPECT_EQ(newsOf(), Texts{"LayoutUpdated 3, 0"});
  std::swap(menu.items[0], menu.items[2]);
  EXPECT_EQ(newsOf(), Texts{"LayoutUpdated 4, 0"});
  menu.items.erase(menu.items.begin());
  EXPECT_EQ(newsOf(), Texts{"LayoutUpdated 5, 0"});
  menu.items.clear();
  EXPECT_EQ(newsOf(), Texts{"LayoutUpdated 6, 0"});
  EXPECT_EQ(newsOf(), Texts{});
}

TEST_F(TrayMenuChanges, DoNotLeakMemory) {
  const ImageRef images[] = {makeTestImage(22, 1, 2, 3), makeTestImage(22, 4, 5, 6)};
  const auto rebuild = [&](int times) {
    for (int time = 0; time < times; ++time) {
      menu.items[0].title = "status " + std::to_string(time);
      menu.items[3].checked = time % 2 == 0;
      item->setMenu(menu);
      item->setButton({.image = images[time / 10 % 2], .toolTip = menu.items[0].title});
      if (time % 50 == 0) host->news();
    }
    host->news();
  };
  rebuild(500);
  const auto before = heapInUse();
  rebuild(5000);
  EXPECT_LT(heapInUse(), before + 128 * 1024);
}

}  // namespace
}  // namespace kestrune::testing
