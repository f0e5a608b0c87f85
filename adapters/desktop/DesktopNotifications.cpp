#include "adapters/desktop/DesktopNotifications.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "adapters/system/Identity.h"

#include "text/Text.h"

namespace kestrune {

namespace {

constexpr auto daemonName = "org.freedesktop.Notifications";
constexpr auto daemonPath = "/org/freedesktop/Notifications";
constexpr auto daemonInterface = "org.freedesktop.Notifications";

constexpr auto applicationName = "Kestrune";

constexpr Seconds answerTime{1.0};
constexpr std::size_t waitingLimit = 32;       // notifications
constexpr std::size_t lastingLimit = 32;       // notifications
constexpr std::uint64_t unsentLimit = 64;      // messages that the bus has not taken
constexpr std::size_t bodyLimit = 1000;        // characters
constexpr std::size_t bodyByteLimit = 16'000;  // more than so many characters ever take
constexpr std::size_t bodyLineLimit = 40;

/// A body as it may be shown: its lines without controls, and as much of them as has room on a screen.
std::string readableBody(std::string_view body) {
  const std::string_view beginning = withinBytes(body, bodyByteLimit);
  bool cut = beginning.size() < body.size();
  std::string text;
  std::size_t count = 0;
  LineSplitter lines(beginning);
  for (std::string_view line; lines.next(line); ++count) {
    cut = cut || count == bodyLineLimit;
    if (count == bodyLineLimit) break;
    if (count > 0) text += '\n';
    text += withoutControls(line);
  }
  std::string shown = shortened(text, bodyLimit);
  const bool showsTheCut = shown.size() < text.size();
  return cut && !showsTheCut ? shown + "..." : shown;
}

/// Whether a list of texts has this one in it; nothing if it cannot be read.
std::optional<bool> lists(sd_bus_message* message, const char* wanted) {
  if (sd_bus_message_enter_container(message, 'a', "s") < 0) return std::nullopt;
  bool found = false;
  const char* each = nullptr;
  int result = 0;
  while ((result = sd_bus_message_read(message, "s", &each)) > 0)
    found = found || std::strcmp(each, wanted) == 0;
  if (result < 0) return std::nullopt;
  return found;
}

}  // namespace

DesktopNotifications::DesktopNotifications(SessionBus& givenBus, Timers& givenTimers, std::string givenIcon)
    : sessionBus(givenBus),
      timers(givenTimers),
      icon(isValidUtf8(givenIcon) ? std::move(givenIcon) : std::string()),
      owner(daemonName, [this](const std::string& before) { ownerChanged(before); }) {
  sessionBus.add(*this);
}

DesktopNotifications::~DesktopNotifications() {
  sessionBus.remove(*this);
}

void DesktopNotifications::requestAuthorization(unsigned) {}

void DesktopNotifications::add(const Notification& notification) {
  if (bus == nullptr) return;
  waiting.push_back(notification);
  if (waiting.size() > waitingLimit) waiting.pop_front();
  if (readsMarkup || waitedEnough) {
    sendWaiting();
    return;
  }
  if (!deadline) {
    deadline = timers.scheduleOnce(answerTime, [this] {
      waitedEnough = true;
      sendWaiting();
    });
  }
  if (!question) ask();
}

void DesktopNotifications::busConnected(sd_bus* connected) {
  bus = connected;
  owner.busConnected(bus);
}

void DesktopNotifications::busLost() {
  owner.busLost();
  question.reset();
  deadline.reset();
  waiting.clear();
  lasting.clear();
  readsMarkup.reset();
  waitedEnough = false;
  bus = nullptr;
}

void DesktopNotifications::ownerChanged(const std::string& before) {
  readsMarkup.reset();
  waitedEnough = false;
  // A question that found nobody there goes to the daemon that it starts.
  if (before.empty()) return;
  lasting.clear();
  question.reset();
  if (!waiting.empty()) ask();
}

void DesktopNotifications::ask() {
  sd_bus_message* call = nullptr;
  if (sd_bus_message_new_method_call(bus, &call, daemonName, daemonPath, daemonInterface, "GetCapabilities") <
      0)
    return;
  const BusMessage owned(call);
  sd_bus_slot* slot = nullptr;
  // Without a limit of time: a daemon that says nothing is not asked again and again.
  if (sd_bus_call_async(bus, &slot, call, &answered, this, UINT64_MAX) >= 0) question.reset(slot);
}

int DesktopNotifications::answered(sd_bus_message* reply, void* data, sd_bus_error*) {
  auto& self = *static_cast<DesktopNotifications*>(data);
  self.question.reset();
  if (sd_bus_message_get_error(reply) == nullptr) self.readsMarkup = lists(reply, "body-markup");
  // A daemon that cannot say is not asked again; where there is none, there may be one the next time.
  self.waitedEnough = !self.owner.owner().empty();
  self.sendWaiting();
  return 0;
}

void DesktopNotifications::sendWaiting() {
  deadline.reset();
  for (const auto& notification : std::exchange(waiting, {})) send(notification);
}

void DesktopNotifications::send(const Notification& notification) {
  std::uint64_t unsent = 0;
  if (sd_bus_get_n_queued_write(bus, &unsent) < 0 || unsent > unsentLimit) return;
  sd_bus_message* call = nullptr;
  if (sd_bus_message_new_method_call(bus, &call, daemonName, daemonPath, daemonInterface, "Notify") < 0)
    return;
  const BusMessage owned(call);
  constexpr std::uint32_t replacesNone = 0;
  constexpr std::int32_t defaultExpiration = -1;
  constexpr std::int32_t noExpiration = 0;
  // Daemons with a list keep only what is not transient in it; GNOME Shell removes what is not resident with
  // a click. Those without a list go by the expiration.
  if (sd_bus_message_append(call, "susssasa{sv}i", applicationName, replacesNone, icon.c_str(),
                            displayRow(notification.title).c_str(), bodyText(notification.body).c_str(), 0, 2,
                            "desktop-entry", "s", applicationIdentifier,
                            notification.lasting ? "resident" : "transient", "b", 1,
                            notification.lasting ? noExpiration : defaultExpiration) < 0)
    return;
  if (!notification.lasting) {
    sd_bus_message_set_expect_reply(call, false);
    sd_bus_send(bus, call, nullptr);
    return;
  }
  auto& sent = lasting.emplace_back(Lasting{*this, notification.identifier});
  sd_bus_slot* slot = nullptr;
  if (sd_bus_call_async(bus, &slot, call, &shown, &sent, UINT64_MAX) >= 0) sent.reply.reset(slot);
  if (lasting.size() > lastingLimit) lasting.pop_front();
}

int DesktopNotifications::shown(sd_bus_message* reply, void* data, sd_bus_error*) {
  auto& sent = *static_cast<Lasting*>(data);
  sent.reply.reset();
  sd_bus_message_read(reply, "u", &sent.number);
  if (sent.withdrawn) sent.self.withdraw(std::string(sent.identifier));
  return 0;
}

void DesktopNotifications::withdraw(const std::string& identifier) {
  std::erase_if(waiting, [&](const Notification& each) { return each.identifier == identifier; });
  const auto found = std::find_if(lasting.begin(), lasting.end(),
                                  [&](const Lasting& each) { return each.identifier == identifier; });
  if (found == lasting.end()) return;
  found->withdrawn = true;
  if (found->reply) return;
  sd_bus_message* call = nullptr;
  if (found->number != 0 && sd_bus_message_new_method_call(bus, &call, daemonName, daemonPath,
                                                           daemonInterface, "CloseNotification") >= 0) {
    const BusMessage owned(call);
    sd_bus_message_append(call, "u", found->number);
    sd_bus_message_set_auto_start(call, false);
    sd_bus_message_set_expect_reply(call, false);
    sd_bus_send(bus, call, nullptr);
  }
  lasting.erase(found);
}

std::string DesktopNotifications::bodyText(const std::string& body) const {
  std::string text = readableBody(body);
  // The full-width forms read the same, and mean nothing in markup.
  if (!readsMarkup) return replacingAll(replacingAll(text, "<", "＜"), "&", "＆");
  if (!*readsMarkup) return text;
  return replacingAll(replacingAll(replacingAll(text, "&", "&amp;"), "<", "&lt;"), ">", "&gt;");
}

}  // namespace kestrune
