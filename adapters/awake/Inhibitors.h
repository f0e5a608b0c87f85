#pragma once

#include <array>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "adapters/awake/InhibitorService.h"
#include "ports/PowerAssertions.h"

namespace kestrune {

/// Power assertions as requests not to take the user for idle; a suspend that the user asks for is never
/// refused.
///
/// The display is kept on by the session manager, if it is one of GNOME's kind, or else by all that there is
/// of the screen-saver and the power-management service; on a machine that has none of them, by logind. The
/// system is kept awake by logind, and by the power-management service if there is one: where there is, it is
/// what puts the machine to sleep. An assertion is held only if all of these have granted it. A service that
/// starts again, or appears later, is asked then, without anybody waiting for it; if it refuses, the
/// assertion is lost.
///
/// `create` waits for at most 250 ms for a service; one that has not answered by then is left alone for a
/// minute, as long as it does not start again. It never waits for a bus that is not up.
class Inhibitors final : public PowerAssertions {
 public:
  /// What is given outlives this. What is held is given back when this is destroyed.
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

  std::optional<Services> servicesFor(PowerAssertionType type);
  bool inhibit(std::uint32_t identifier, const Assertion& assertion);
  void giveBack(std::uint32_t identifier);
  void settle();

  std::map<std::uint32_t, Assertion> assertions;
  std::uint32_t lastIdentifier = 0;
  InhibitorService sessionManager, screenSaver, powerManagement, login;
  const std::array<InhibitorService*, 4> all{&sessionManager, &screenSaver, &powerManagement, &login};
};

}  // namespace kestrune
