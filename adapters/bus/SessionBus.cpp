#include "adapters/bus/SessionBus.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>

#include "adapters/system/System.h"

namespace kestrune {

constexpr Seconds longestRetry{30.0};
constexpr Seconds longestHandshake{0.02};
constexpr auto withoutDesktop = "; where there is no desktop, use --terminal";

void BusConnection::add(BusClient& client) {
  clients.push_back(&client);
  if (bus != nullptr) client.busConnected();
}

void BusConnection::connect(Absence givenAbsence) {
  absence = givenAbsence;
  disconnect();
  int result = kind == BusKind::session ? sd_bus_open_user(&bus) : sd_bus_open_system(&bus);
  // Set no timeout: at login, services may answer late, and a stopped bus daemon (SIGSTOP) answers only after
  // SIGCONT. Most calls are not repeated.
  if (result >= 0) result = sd_bus_set_method_call_timeout(bus, UINT64_MAX);
  if (result >= 0) result = sd_bus_attach_event(bus, loop.event(), SD_EVENT_PRIORITY_NORMAL);
  if (result >= 0) {
    result = sd_bus_match_signal(bus, Into(disconnection), nullptr, "/org/freedesktop/DBus/Local",
                                 "org.freedesktop.DBus.Local", "Disconnected",
                                 &handler<&BusConnection::connectLater>, this);
  }
  if (result < 0) {
    bus = sd_bus_close_unref(bus);
    connectLater(nullptr);
    // The error is ENOENT when the bus has no socket, and ENOMEDIUM when no address of the bus is known.
    const bool isMissing = result == -ENOENT || result == -ENOMEDIUM;
    if (isMissing && absence == Absence::expected) return;
    const bool isSession = kind == BusKind::session;
    reportOnce(std::string(isSession ? "no session bus (" : "no system bus (") + describe(-result) +
               "): going on without it" + (isMissing && isSession ? withoutDesktop : ""));
    return;
  }
  // An open connection does not prove that the bus works: a socket can accept connections although nobody
  // answers. So the retry delay is reset only when the bus has answered this call.
  sd_bus_call_method_async(bus, Into(firstAnswer), busName, busPath, busName, "GetId",
                           &handler<&BusConnection::answered>, this, "");
  use(bus);
}

void BusConnection::waitUntilReady() {
  const Seconds end = timeOf(CLOCK_MONOTONIC) + longestHandshake;
  while (bus != nullptr && sd_bus_is_ready(bus) == 0) {
    const Seconds left = end - timeOf(CLOCK_MONOTONIC);
    if (left <= Seconds{0}) return;
    int result = sd_bus_process(bus, nullptr);
    if (result == 0) result = sd_bus_wait(bus, static_cast<std::uint64_t>(left.count() * 1e6));
    if (result < 0) return;  // the connection is lost, and will be made again
  }
}

void BusConnection::use(sd_bus* opened) {
  bus = opened;
  for (auto* const client : clients) client->busConnected();
}

void BusConnection::disconnect() {
  if (bus == nullptr) return;
  sd_bus* const lost = std::exchange(bus, nullptr);
  for (auto* const client : clients) client->busLost();
  // Close the connection without flushing it: sd_bus_flush would block while the bus daemon does not read,
  // for example while SIGSTOP has stopped it.
  sd_bus_close_unref(lost);
}

void BusConnection::connectLater(sd_bus_message*) {
  retry = loop.after(retryDelay, [this] { connect(absence); });
  retryDelay = std::min(retryDelay * 2, longestRetry);
}

}  // namespace kestrune
