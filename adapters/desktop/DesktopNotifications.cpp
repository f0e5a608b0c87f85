#include "adapters/desktop/DesktopNotifications.h"

#include <algorithm>
#include <utility>

#include "text/Text.h"

namespace kestrune {

constexpr auto daemonName = "org.freedesktop.Notifications";  // also the name of its D-Bus interface
constexpr auto daemonPath = "/org/freedesktop/Notifications";

constexpr std::size_t lastingLimit = 32;       // only the newest 32 lasting notifications can be withdrawn
constexpr std::uint64_t unsentLimit = 64;      // messages queued in sd-bus; with more, `add` does nothing
constexpr std::size_t bodyLimit = 1000;        // characters; the rest of a longer body is not shown
constexpr std::size_t bodyByteLimit = 16'000;  // bytes; a longer body is cut before `bodyLimit` applies
constexpr std::size_t bodyLineLimit = 40;

DesktopNotifications::DesktopNotifications(SessionBus& givenBus, std::string givenIcon)
    : BusClient(givenBus),
      icon(isValidUtf8(givenIcon) ? std::move(givenIcon) : std::string()),
      daemon(connection, daemonName, [this](const auto& before) { daemonChanged(before); }) {
  connection.add(*this);
}

void DesktopNotifications::daemonChanged(const std::optional<std::string>& before) {
  // If another daemon ran before, its notifications are gone, as if the bus had been lost. If no daemon ran,
  // keep `lasting`: these notifications may be waiting in the bus, which starts the daemon for them.
  if (!before.value_or("").empty()) busLost();
  if (daemon.owner().empty()) return;
  sd_bus_call_method_async(bus, Into(question), daemon.owner().c_str(), daemonPath, daemonName,
                           "GetCapabilities", &handler<&DesktopNotifications::answered>, this, "");
}

void DesktopNotifications::answered(sd_bus_message* reply) {
  if (sd_bus_message_enter_container(reply, 'a', "s") < 0) return;
  bool markup = false;
  const char* capability = nullptr;
  int result = 0;
  while ((result = sd_bus_message_read(reply, "s", &capability)) > 0)
    markup = markup || capability == std::string_view("body-markup");
  if (result == 0) readsMarkup = markup;
}

void DesktopNotifications::add(const Notification& notification) {
  std::uint64_t unsent = 0;
  if (bus == nullptr || sd_bus_get_n_queued_write(bus, &unsent) < 0 || unsent > unsentLimit) return;
  constexpr std::uint32_t replacesNone = 0;
  const bool lasts = notification.lasting;
  const std::int32_t expiration = lasts ? 0 : -1;  // 0: never; -1: the daemon's default
  // A hint ("resident" or "transient") and the expiration both say whether the notification lasts. Daemons
  // with a list of notifications obey the hint: they leave "transient" ones out of the list, and GNOME Shell
  // removes a notification at a click unless it is "resident". Other daemons obey the expiration.
  BusMessage call;
  sd_bus_message_new_method_call(bus, Into(call), daemonName, daemonPath, daemonName, "Notify");
  sd_bus_message_append(call.get(), "susssasa{sv}i", applicationName, replacesNone, icon.c_str(),
                        displayRow(notification.title).c_str(), bodyText(notification.body).c_str(), 0, 2,
                        "desktop-entry", "s", applicationIdentifier, lasts ? "resident" : "transient", "b", 1,
                        expiration);
  // Request a reply only for a lasting notification: `withdraw` needs the number in the reply.
  if (!lasts) {
    sd_bus_send(bus, call.get(), nullptr);
    return;
  }
  Lasting& sent = lasting.emplace_back(Lasting{*this, notification.identifier});
  sd_bus_call_async(bus, Into(sent.reply), call.get(), &handler<&Lasting::shown>, &sent, 0);
  if (lasting.size() > lastingLimit) lasting.pop_front();
}

void DesktopNotifications::Lasting::shown(sd_bus_message* answer) {
  reply.reset();
  sd_bus_message_read(answer, "u", &number);
  if (withdrawn) self.withdraw(std::string(identifier));
}

void DesktopNotifications::withdraw(const std::string& identifier) {
  const auto found = std::ranges::find(lasting, identifier, &Lasting::identifier);
  if (found == lasting.end()) return;
  found->withdrawn = true;
  if (found->reply) return;
  // Call the daemon by its unique name, so that the bus does not start another daemon.
  if (found->number != 0) {
    sd_bus_call_method_async(bus, nullptr, daemon.owner().c_str(), daemonPath, daemonName,
                             "CloseNotification", nullptr, nullptr, "u", found->number);
  }
  lasting.erase(found);
}

/// Returns `body` without control characters, for this daemon. Shortens it to `bodyByteLimit` bytes,
/// `bodyLimit` characters and `bodyLineLimit` lines.
std::string DesktopNotifications::bodyText(const std::string& body) const {
  const std::string_view beginning = withinBytes(body, bodyByteLimit);
  std::string text;
  LineSplitter lines(beginning);
  std::string_view line;
  for (std::size_t count = 0; count < bodyLineLimit && lines.next(line); ++count) {
    if (count > 0) text += '\n';
    text += withoutControls(line);
  }
  if (beginning.size() < body.size() || lines.next(line)) text += "...";
  text = shortened(text, bodyLimit);
  // Until the daemon says whether it reads markup, send full-width characters, which need no escaping.
  if (!readsMarkup) return replacingAll(replacingAll(text, "<", "＜"), "&", "＆");
  if (!*readsMarkup) return text;
  return replacingAll(replacingAll(replacingAll(text, "&", "&amp;"), "<", "&lt;"), ">", "&gt;");
}

}  // namespace kestrune
