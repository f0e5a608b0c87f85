#include <gtest/gtest.h>

#include "tests/rig/FakePlatform.h"
#include "tests/rig/HeapInUse.h"
#include "tests/rig/TrayDesk.h"

namespace kestrune::testing {
namespace {

using News = std::vector<std::string>;

struct TrayMenuChanges : TrayDesk {
  void SetUp() override {
    TrayDesk::SetUp();
    item->setMenu(menu);
    host->news();
  }
  /// Sets `menu`, and returns the signals that the host receives.
  News newsOf() {
    item->setMenu(menu);
    return host->news();
  }

  Menu menu{{
      {.id = 1, .title = "status", .enabled = false},
      {.id = 2, .isSeparator = true},
      {.id = 3, .title = "stop", .action = "stop", .keyEquivalent = "x"},
      {.id = 4, .title = "switch", .action = "switch", .checked = false},
  }};
};

TEST_F(TrayMenuChanges, SendOnlyTheChangedProperty) {
  menu.items[0].title = "other";
  EXPECT_EQ(newsOf(), News{"ItemsPropertiesUpdated [(1, {'label': s 'other'})], []"});
  menu.items[3].checked = true;
  EXPECT_EQ(newsOf(), News{"ItemsPropertiesUpdated [(4, {'toggle-state': i 1})], []"});
  menu.items[2].enabled = false;
  EXPECT_EQ(newsOf(), News{"ItemsPropertiesUpdated [(3, {'enabled': b false})], []"});
  menu.items[2].keyEquivalent = "X";
  EXPECT_EQ(newsOf(),
            News{"ItemsPropertiesUpdated [(3, {'shortcut': aas [['Control', 'Shift', 'x']]})], []"});
}

TEST_F(TrayMenuChanges, SendTheNamesOfRemovedProperties) {
  menu.items[2].keyEquivalent = "";
  menu.items[2].title = "stopping";
  menu.items[3].checked.reset();
  EXPECT_EQ(newsOf(), News{"ItemsPropertiesUpdated [(3, {'label': s 'stopping'})], [(3, ['shortcut']), (4, "
                           "['toggle-state', 'toggle-type'])]"});
  menu.items[0].title = "status\n";
  EXPECT_EQ(newsOf(), News{"ItemsPropertiesUpdated [(1, {'label': s 'status '})], []"});
  menu.items[0].title = "status\t";
  EXPECT_EQ(newsOf(), News{}) << "it looks the same";
}

TEST_F(TrayMenuChanges, OfTheListOfRowsSendLayoutUpdated) {
  menu.items.push_back({.id = 5, .title = "more"});
  EXPECT_EQ(newsOf(), News{"LayoutUpdated 3, 0"});
  std::swap(menu.items[0], menu.items[2]);
  EXPECT_EQ(newsOf(), News{"LayoutUpdated 4, 0"});
  menu.items.erase(menu.items.begin());
  EXPECT_EQ(newsOf(), News{"LayoutUpdated 5, 0"});
  menu.items.clear();
  EXPECT_EQ(newsOf(), News{"LayoutUpdated 6, 0"});
  EXPECT_EQ(newsOf(), News{});
}

TEST_F(TrayMenuChanges, DoNotLeakMemory) {
  StatusButton button;
  const ImageRef images[] = {makeTestImage(22, 1, 2, 3), makeTestImage(22, 4, 5, 6)};
  const auto rebuild = [&](int times) {
    for (int time = 0; time < times; ++time) {
      menu.items[0].title = "status " + std::to_string(time);
      menu.items[3].checked = time % 2 == 0;
      item->setMenu(menu);
      button.toolTip = menu.items[0].title;
      button.image = images[time / 10 % 2];
      item->setButton(button);
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
