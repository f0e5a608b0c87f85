#pragma once

#include <array>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "adapters/awake/InhibitorService.h"
#include "ports/PowerAssertions.h"

namespace kestrune {

/// Power assertions as idle inhibitors over D-Bus. A suspend that the user asks for is never blocked.
///
/// For the display, it asks the GNOME session manager. Without that, it asks the screen-saver and the
/// power-management service, if they exist, else logind. For the system, it asks logind, and the
/// power-management service if there is one, which can suspend the machine by itself. An assertion is held
/// only if every service that was asked has granted it. A service that starts later or again is asked without
/// blocking; if it refuses, the assertion is lost.
///
/// `create` waits for a service for at most 250 ms, and then does not ask it for a minute unless it starts
/// again. It never waits for a bus that is not connected.
class Inhibitors final : public PowerAssertions {
 public:
  /// The arguments outlive this. The destructor gives back all inhibitors.
  Inhibitors(SessionBus& sessionBus, SystemBus& systemBus, const Clock& clock);

  std::optional<std::uint32_t> create(PowerAssertionType type, int level, const std::string& name) override;
  bool isHeld(std::uint32_t identifier) override;
  void release(std::uint32_t identifier) override;

 private:
  using Services = std::vector<InhibitorService*>;
  struct Assertion {
    PowerAssertionType type;
    std::string name;
  };

  Services servicesFor(PowerAssertionType type);
  bool inhibit(std::uint32_t identifier, const Assertion& assertion);
  void giveBack(std::uint32_t identifier);
  void settle();

  std::map<std::uint32_t, Assertion> assertions;
  std::uint32_t lastIdentifier = 0;
  InhibitorService sessionManager, screenSaver, powerManagement, login;
  const std::array<InhibitorService*, 4> all{&sessionManager, &screenSaver, &powerManagement, &login};
};

}  // namespace kestrune
