#include <algorithm>
#include <iterator>

#include "KestruneMenuClient/AppDelegate.h"

namespace kestrune {

/// An element of `menuRows`, which lists all rows of the menu except rows 2 to 11: `statusRows` makes those.
/// Rows with the same action stand side by side and have the same number.
struct AppDelegate::MenuRow {
  int number;               ///< place in the menu; `rowAt` chooses between rows with the same place
  const char* title = "";   ///< empty: a separator
  const char* action = "";  ///< `performAction(action)` performs this row; empty: the row has no action
  const char* key = "";
  void (AppDelegate::*run)() = nullptr;            ///< null: the row is disabled
  bool (AppDelegate::*isOn)() const = nullptr;     ///< whether the row is checked; null: it has no check mark
  bool (AppDelegate::*applies)() const = nullptr;  ///< whether the row can be shown now; null: always
};

constexpr int lastRow = 29;
constexpr int firstStatusRow = 2;
constexpr int lastStatusRow = 11;
constexpr int notInTheMenu = 0;

using A = AppDelegate;
const AppDelegate::MenuRow AppDelegate::menuRows[] = {
    {1, "Kestrune"},
    {12},
    {13, "連線與常駐"},
    {14, "開機自動啟動菜單欄", "toggleLaunchAtLogin", "l", &A::toggleLaunchAtLogin,
     &A::isLaunchAtLoginEnabled},
    {15, "自動維持連線", "toggleAutoConnect", "a", &A::toggleAutoConnect, &A::isAutoConnectEnabled},
    {16, "保持 Mac 醒著（防止斷線）", "toggleKeepAwake", "k", &A::toggleKeepAwake, &A::isKeepAwakeEnabled},
    {17, "使用 Kestrune 自托管模式", "toggleConnectionMode", "m", &A::toggleConnectionMode, nullptr,
     &A::isOfficialConnectionMode},
    {17, "使用官方 ChatGPT 模式", "toggleConnectionMode", "m", &A::toggleConnectionMode},
    {18, "正在重新檢查並恢復連線…", "", "", nullptr, nullptr, &A::isReconnecting},
    {18, "手動停止連線", "stopConnection", "x", &A::stopConnection, nullptr, &A::isAutoConnectEnabled},
    {18, "立即重新檢查連線", "refreshNow", "r", &A::refreshNow},
    {19},
    {20, "查看與設定"},
    {21, "查看完整診斷", "showStatus", "s", &A::showStatus},
    {22, "檢查 Codex 版本與 Remote Control", "showCodexRuntimeStatus", "c", &A::showCodexRuntimeStatus},
    {23, "打開 Codex App", "openCodexApp", "d", &A::openCodexApp},
    {24, "官方 ChatGPT 連接說明", "showChatGPTRemoteGuide", "g", &A::showChatGPTRemoteGuide},
    {25, "打開專案資料夾", "openProjectFolder", "o", &A::openProjectFolder},
    {26, "連線與 Token 設定…", "showSettings", ",", &A::showSettings},
    {27, "重新啟動菜單欄", "restartMenuClient", "R", &A::restartMenuClient},
    {28},
    {29, "退出 Kestrune", "quit", "q", &A::quit},
    // Not a row of the menu: the action of a button in the settings dialog.
    {notInTheMenu, "顯示手機配對 QR", "showPairingQR", "", &A::showPairingQR},
};

/// Returns the row that is shown at `number` now.
const AppDelegate::MenuRow& AppDelegate::rowAt(int number) const {
  return *std::ranges::find_if(menuRows, [this, number](const MenuRow& each) {
    return each.number == number && (each.applies == nullptr || (this->*each.applies)());
  });
}

void AppDelegate::rebuildMenu(const std::string& statusText, ConnectionLampState state, int) {
  if (statusItem == nullptr) fatalError("the menu is built before the status item exists");
  // Assign a temporary string: a plain copy would keep the larger buffer of an earlier, longer text.
  current.status = std::string(statusText);
  current.lamp = state;
  current.officialMode = isOfficialConnectionMode();
  current.autoConnect = isAutoConnectEnabled();
  current.keepsAwake = displaySleepAssertionID != 0;
  const std::vector<std::string> status = statusRows(current);
  Menu menu;
  for (int number = 1; number <= lastRow; ++number) {
    MenuItem item{.id = number, .enabled = false, .target = weak_from_this()};
    if (number >= firstStatusRow && number <= lastStatusRow) {
      item.title = status[static_cast<std::size_t>(number - firstStatusRow)];
    } else {
      const MenuRow& row = rowAt(number);
      item.title = row.title;
      item.isSeparator = item.title.empty();
      item.action = row.action;
      item.keyEquivalent = row.key;
      item.enabled = row.run != nullptr || item.isSeparator;
      if (row.isOn != nullptr) item.checked = (this->*row.isOn)();
    }
    menu.items.push_back(std::move(item));
  }
  statusItem->setMenu(std::move(menu));
  platform.statusFeed.publish([published = current] { return statusJson(published, true); });
}

void AppDelegate::performAction(std::string_view action) {
  for (const MenuRow& row : menuRows) {
    if (row.run != nullptr && row.action == action) return (this->*row.run)();
  }
}

std::string AppDelegate::describeActions() {
  std::size_t width = 0;
  for (const MenuRow& row : menuRows) width = std::max(width, std::string_view(row.action).size());
  std::string lines;
  std::string_view described;
  for (const MenuRow& row : menuRows) {
    if (row.run == nullptr || row.number == notInTheMenu) continue;
    const bool again = row.action == described;  // the previous row has this action: extend its line
    if (again) lines.pop_back();
    described = row.action;
    lines += again ? " / " : row.action + std::string(width + 2 - described.size(), ' ');
    lines += row.title + std::string("\n");
  }
  return lines;
}

Result<> AppDelegate::performRequest(const std::string& action) {
  const auto isNamed = [&action](const MenuRow& row) { return row.run != nullptr && row.action == action; };
  const auto* const row = std::ranges::find_if(menuRows, isNamed);
  if (row == std::end(menuRows))
    return Failure{"unknown action: " + action + "; \"--perform help\" lists all actions"};
  if (row->number == notInTheMenu || !isNamed(rowAt(row->number)))
    return Failure{"no enabled menu row has this action now: " + action};
  (this->*row->run)();
  return Done{};
}

}  // namespace kestrune
