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

/// What a host has to be told of the change from `before` to `after`.
std::vector<std::string> newsOf(const Rows& before, const Rows& after, int revision) {
  const auto isSame = [](const auto& one, const auto& other) { return one.first == other.first; };
  std::vector<std::string> news;
  if (!std::equal(before.begin(), before.end(), after.begin(), after.end(), isSame))
    news.push_back("LayoutUpdated " + std::to_string(revision) + ", 0");
  const std::map<int, Properties> known(before.begin(), before.end());
  std::map<int, std::string> updated, removed;  // by the numbers of the rows
  for (const auto& [id, now] : after) {
    const auto found = known.find(id);
    if (found == known.end()) continue;
    const Properties& old = found->second;
    std::string values, names;
    for (const auto& [name, value] : now) {
      if (!old.contains(name) || old.at(name) != value) values += ", '" + name + "': " + value;
    }
    for (const auto& [name, value] : old) {
      if (!now.contains(name)) names += ", '" + name + "'";
    }
    const std::string begin = ", (" + std::to_string(id) + ", ";
    if (!values.empty()) updated[id] = begin + "{" + values.substr(2) + "})";
    if (!names.empty()) removed[id] = begin + "[" + names.substr(2) + "])";
  }
  if (updated.empty() && removed.empty()) return news;
  const auto list = [](const std::map<int, std::string>& rows) {
    std::string text;
    for (const auto& [id, row] : rows) text += row;
    return text.empty() ? "[]" : "[" + text.substr(2) + "]";
  };
  news.push_back("ItemsPropertiesUpdated " + list(updated) + ", " + list(removed));
  return news;
}

struct TrayReplay : TrayDesk {
  /// Shows `menu`, and checks what the host is told.
  void show(const Menu& menu) {
    Rows rows = rowsOf(menu);
    item->setMenu(menu);
    const bool isNew = rows != shown;
    ++(isNew ? changes : repetitions);
    ASSERT_EQ(host->news(), newsOf(shown, rows, changes + 1)) << "menu " << changes + repetitions;
    shown = std::move(rows);
  }

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

TEST_F(TrayReplay, OfMenusMadeByChanceTellsTheHostWhatChanged) {
  Chance chance(20261);
  Menu menu;
  for (int id = 1; id <= 12; ++id) menu.items.push_back({.id = id, .title = "row"});
  for (int time = 0; time < 1000 && !HasFatalFailure(); ++time) {
    change(menu, chance);
    show(menu);
  }
  EXPECT_GT(changes, 200);
  EXPECT_GT(repetitions, 200);
}

}  // namespace
}  // namespace kestrune::testing
