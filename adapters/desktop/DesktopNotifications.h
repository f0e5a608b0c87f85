#pragma once

#include <cstdint>
#include <list>
#include <optional>
#include <string>

#include "adapters/bus/NameOwner.h"
#include "ports/Desktop.h"

namespace kestrune {

/// Shows notifications through the desktop's notification daemon (org.freedesktop.Notifications), and asks
/// each daemon that appears whether it reads markup. If no daemon runs, the bus may start one. Never blocks.
class DesktopNotifications final : public Notifications, public BusClient {
 public:
  /// `givenIcon` is shown beside the text: the path of a picture, or the name of an icon in the theme.
  /// `givenBus` outlives this object.
  DesktopNotifications(SessionBus& givenBus, std::string givenIcon);

  /// Does nothing, because desktops have their own settings for permissions.
  void requestAuthorization(unsigned) override {}
  void add(const Notification& notification) override;
  /// Withdraws the notification `identifier` if the daemon that shows it still runs. Works only for the 32
  /// newest notifications that are `Notification::lasting`.
  void withdraw(const std::string& identifier) override;

  void busLost() override {
    question.reset();
    readsMarkup.reset();
    lasting.clear();
  }

 private:
  /// A notification that was sent to the daemon, and that stays until the user or `withdraw` removes it.
  struct Lasting {
    DesktopNotifications& self;
    std::string identifier;
    BusSlot reply{};           ///< the pending call of "Notify"; null after the daemon has answered
    std::uint32_t number = 0;  ///< the daemon's number for the notification; 0: unknown
    bool withdrawn = false;

    void shown(sd_bus_message* answer);
  };

  void daemonChanged(const std::optional<std::string>& before);
  std::string bodyText(const std::string& body) const;
  void answered(sd_bus_message* reply);

  const std::string icon;
  NameOwner daemon;
  BusSlot question;  ///< the call of "GetCapabilities", whose answer sets `readsMarkup`
  std::optional<bool> readsMarkup;
  std::list<Lasting> lasting;
};

}  // namespace kestrune
