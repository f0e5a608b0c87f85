#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "adapters/awake/InhibitorService.h"
#include "ports/PowerAssertions.h"

namespace kestrune {

/// Holds power assertions (which keep the machine or its display awake) as idle inhibitors of D-Bus services.
/// A suspend that the user asks for is never blocked.
///
/// An assertion for the display needs an inhibitor of the GNOME session manager. Without a session manager,
/// it needs inhibitors of the screen-saver service and the power-management service, as far as they run; if
/// neither runs, of logind. An assertion for the system needs inhibitors of logind and, if it runs, of the
/// power-management service, which can suspend the machine by itself. An assertion is held only if every
/// needed service has granted its inhibitor. So it is lost when a needed service starts later, ends or starts
/// again.
///
/// `create` blocks for at most 250 ms for each service (`InhibitorService::inhibit`).
class Inhibitors final : public PowerAssertions {
 public:
  /// The buses and the clock must outlive this object. The destructor gives back all inhibitors.
  Inhibitors(SessionBus& sessionBus, SystemBus& systemBus, const Clock& clock);

  std::optional<std::uint32_t> create(PowerAssertionType type, int level, const std::string& name) override;
  bool isHeld(std::uint32_t identifier) override;
  void release(std::uint32_t identifier) override;

 private:
  using Services = std::vector<InhibitorService*>;

  Services servicesFor(PowerAssertionType type);
  bool inhibit(std::uint32_t identifier, PowerAssertionType type, const std::string& name);

  std::map<std::uint32_t, PowerAssertionType> assertions;  ///< key: identifier
  std::uint32_t lastIdentifier = 0;
  InhibitorService sessionManager, screenSaver, powerManagement, login;
};

}  // namespace kestrune
