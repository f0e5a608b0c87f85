#include "adapters/tray/TrayAdvice.h"

#include "adapters/tray/TrayHostForm.h"

namespace kestrune {

const Notification advice{
    .identifier = "no-tray",
    .title = "Kestrune 已啟動，但桌面沒有系統匣",
    .body =
        "再啟動一次 Kestrune 就能打開選單；要有圖示，請裝系統匣（GNOME：AppIndicator）。\n"
        "這個桌面沒有顯示系統匣圖示（StatusNotifierItem）的程式，所以看不到 Kestrune "
        "的圖示；連線仍會照常維持。\n"
        "GNOME：請安裝擴充功能 AppIndicator（Debian／Ubuntu 套件 gnome-shell-extension-appindicator），"
        "重新登入，再啟用「Ubuntu AppIndicators」。\n"
        "GNOME Flashback：請在面板加入「Status Notifier Host」。Budgie：請安裝 budgie-indicator-applet，"
        "並把它加入面板。",
    .lasting = true,
};

void TrayAdvice::look() {
  // Schedule the next check now, in case no answer comes: the bus may be lost, or the watcher may hang.
  lookAfter(patience);
  if (bus == nullptr) return;
  if (++unanswered > looksInVain) return timer.reset();
  BusMessage call;
  sd_bus_message_new_method_call(bus, Into(call), watcherName, watcherPath, "org.freedesktop.DBus.Properties",
                                 "Get");
  sd_bus_message_set_auto_start(call.get(), 0);
  sd_bus_message_append(call.get(), "ss", watcherName, "IsStatusNotifierHostRegistered");
  sd_bus_call_async(bus, Into(question), call.get(), &handler<&TrayAdvice::answered>, this, 0);
}

void TrayAdvice::answered(sd_bus_message* reply) {
  const sd_bus_error* const failure = sd_bus_message_get_error(reply);
  if (sd_bus_error_has_names(failure, SD_BUS_ERROR_NO_REPLY, SD_BUS_ERROR_TIMEOUT)) return;
  unanswered = 0;
  timer.reset();
  int there = 0;
  const bool hasNoHost =
      failure == nullptr && sd_bus_message_read(reply, "v", "b", &there) >= 0 && there == 0;
  if (hasNoHost ||
      sd_bus_error_has_names(failure, SD_BUS_ERROR_NAME_HAS_NO_OWNER, SD_BUS_ERROR_SERVICE_UNKNOWN)) {
    if (++misses == 1) return lookAfter(secondLook);
    if (misses == 2) notifications.add(advice);
  } else if (misses > 1) {
    notifications.withdraw(advice.identifier);
  }
}

}  // namespace kestrune
