#pragma once

#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "adapters/bus/NameOwner.h"
#include "ports/Notifications.h"
#include "ports/Timer.h"

namespace kestrune {

/// Notifications by the desktop's own daemon (org.freedesktop.Notifications), which is started if the bus
/// knows how. Nothing here waits: without a bus, or without a daemon, a notification is dropped.
///
/// Each daemon is asked once whether it reads markup, when there is something to show. Until it has answered
/// notifications are kept, for one second at most; then they are sent in a form that reads the same either
/// way.
class DesktopNotifications final : public Notifications, public BusClient {
 public:
  /// `icon` is shown beside the text: the path of a picture, or the name of an icon that the desktop has.
  /// `bus` and `loop` outlive this.
  DesktopNotifications(SessionBus& bus, Timers& timers, std::string icon);
  ~DesktopNotifications() override;

  /// Does nothing: a desktop lets its user choose without being asked.
  void requestAuthorization(unsigned options) override;
  void add(const Notification& notification) override;
  /// One of the last 32 lasting ones, if its daemon still runs.
  void withdraw(const std::string& identifier) override;

  void busConnected(sd_bus* bus) override;
  void busLost() override;

 private:
  struct Lasting {
    DesktopNotifications& self;
    std::string identifier;
    BusSlot reply{};           ///< null when the daemon has answered
    std::uint32_t number = 0;  ///< that the daemon gave it; 0: none
    bool withdrawn = false;
  };

  void ownerChanged(const std::string& before);
  void ask();
  void sendWaiting();
  void send(const Notification& notification);
  std::string bodyText(const std::string& body) const;
  static int answered(sd_bus_message* reply, void* self, sd_bus_error* error);
  static int shown(sd_bus_message* reply, void* lasting, sd_bus_error* error);

  SessionBus& sessionBus;
  Timers& timers;
  const std::string icon;
  NameOwner owner;

  sd_bus* bus = nullptr;
  std::deque<Notification> waiting;  ///< for the answer of the daemon
  std::list<Lasting> lasting;        ///< what the daemon was given
  BusSlot question;                  ///< null when the daemon is not being asked
  std::unique_ptr<Timer> deadline;   ///< of what is waiting
  std::optional<bool> readsMarkup;
  bool waitedEnough = false;  ///< the daemon will not say, or takes too long to say, whether it reads markup
};

}  // namespace kestrune
