#pragma once

#include <cstdint>
#include <list>
#include <optional>
#include <string>

#include "adapters/bus/NameOwner.h"
#include "ports/Notifications.h"

namespace kestrune {

/// Notifications by the desktop's daemon (org.freedesktop.Notifications), which the bus may start. Never
/// blocks. Without a bus or a daemon, a notification is dropped.
///
/// Each daemon that appears is asked whether it reads markup. Until it has answered, and if it does not,
/// texts are sent in a form that reads the same either way.
class DesktopNotifications final : public Notifications, public BusClient {
 public:
  /// `icon` is shown beside the text: the path of a picture, or the name of an icon in the theme. `givenBus`
  /// outlives this.
  DesktopNotifications(SessionBus& givenBus, std::string givenIcon);
  ~DesktopNotifications() override;

  /// Does nothing: desktops have their own settings for this.
  void requestAuthorization(unsigned) override {}
  void add(const Notification& notification) override;
  /// Withdraws one of the last 32 lasting notifications, if its daemon still runs.
  void withdraw(const std::string& identifier) override;

  void busConnected(sd_bus* bus) override;
  void busLost() override;

 private:
  /// A lasting notification that was sent to the daemon.
  struct Lasting {
    DesktopNotifications& self;
    std::string identifier;
    BusSlot reply{};           ///< null when the daemon has answered
    std::uint32_t number = 0;  ///< the daemon's number for it; 0: none
    bool withdrawn = false;
  };

  void daemonChanged(const std::string& before);
  std::string bodyText(const std::string& body) const;
  static int answered(sd_bus_message* reply, void* self, sd_bus_error* error);
  static int shown(sd_bus_message* reply, void* lasting, sd_bus_error* error);

  SessionBus& sessionBus;
  const std::string icon;
  NameOwner daemon;
  sd_bus* bus = nullptr;
  BusSlot question;  ///< null unless the daemon is being asked
  std::optional<bool> readsMarkup;
  std::list<Lasting> lasting;
};

}  // namespace kestrune
