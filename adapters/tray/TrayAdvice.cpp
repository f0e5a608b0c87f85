#include "adapters/tray/TrayAdvice.h"

#include <utility>

#include "adapters/tray/StatusNotifierItem.h"

namespace kestrune {

namespace {

constexpr auto watcherName = StatusNotifierItem::watcherName;

const Notification advice{
    .identifier = "no-tray",
    .title = "Kestrune 已啟動，但桌面沒有系統匣",
    .body =
        "再啟動一次 Kestrune 就能打開選單；要有圖示，請裝系統匣（GNOME：AppIndicator）。\n"
        "這個桌面沒有顯示系統匣圖示（StatusNotifierItem）的程式，所以看不到 Kestrune "
        "的圖示；連線仍會照常維持。\n"
        "GNOME：請安裝並啟用擴充功能「AppIndicator and KStatusNotifierItem Support」（Debian／Ubuntu "
        "套件 gnome-shell-extension-appindicator），再重新登入。",
    .lasting = true,
};

}  // namespace

TrayAdvice::TrayAdvice(SessionBus& bus, Timers& givenTimers, Notifications& givenNotifications)
    : timers(givenTimers), notifications(givenNotifications), inquiry(bus) {
  lookAfter(patience);
}

void TrayAdvice::lookAfter(Seconds delay) {
  timer = timers.scheduleOnce(delay, [this] { look(); });
}

void TrayAdvice::look() {
  // Look again later if no answer comes: the bus may be lost, or the watcher may hang.
  lookAfter(patience);
  if (!inquiry.isConnected() || !inquiry.isDone()) return;
  if (unanswered == looksInVain) return timer.reset();
  ++unanswered;
  inquiry.ask({watcherName,
               StatusNotifierItem::watcherPath,
               "org.freedesktop.DBus.Properties",
               "Get",
               {watcherName, "IsStatusNotifierHostRegistered"}},
              [this](sd_bus_message* reply, BusInquiry::Outcome outcome) {
                if (outcome == BusInquiry::Outcome::unanswered) return;
                unanswered = 0;
                timer.reset();
                int there = 0;
                const bool hasNoHost =
                    reply != nullptr && sd_bus_message_read(reply, "v", "b", &there) >= 0 && there == 0;
                if (outcome == BusInquiry::Outcome::noOwner || hasNoHost) {
                  trayMissing();
                } else if (advised) {
                  notifications.withdraw(advice.identifier);
                }
              });
}

void TrayAdvice::trayChanged() {
  if (advised) look();
}

void TrayAdvice::trayMissing() {
  if (!std::exchange(missedBefore, true)) return lookAfter(secondLook);
  if (!std::exchange(advised, true)) notifications.add(advice);
}

}  // namespace kestrune
