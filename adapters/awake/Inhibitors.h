#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "adapters/awake/InhibitorService.h"
#include "ports/PowerAssertions.h"

namespace kestrune {

/// Keeps the machine or its display awake (power assertions). For each assertion, requests idle inhibitors
/// from D-Bus services; waits at most 250 ms for each. A suspend that the user asks for is never blocked.
///
/// An assertion is held only while every service that `servicesFor` returns has granted an inhibitor for it.
/// It can be lost when a service ends, because its inhibitors end with it, and also when a service starts,
/// because the new service has not granted an inhibitor yet.
class Inhibitors final : public PowerAssertions {
 public:
  /// The buses and the clock must outlive this object. The destructor releases all inhibitors.
  Inhibitors(SessionBus& sessionBus, SystemBus& systemBus, const Clock& clock);

  std::optional<std::uint32_t> create(PowerAssertionType type, int level, const std::string& name) override;
  bool isHeld(std::uint32_t identifier) override;
  void release(std::uint32_t identifier) override {
    if (assertions.erase(identifier) == 0) return;
    for (auto* const service : {&sessionManager, &screenSaver, &powerManagement, &login})
      service->release(identifier);
  }

 private:
  using Services = std::vector<InhibitorService*>;

  Services servicesFor(PowerAssertionType type);

  std::map<std::uint32_t, PowerAssertionType> assertions;  ///< key: identifier
  std::uint32_t lastIdentifier = 0;
  InhibitorService sessionManager, screenSaver, powerManagement, login;
};

}  // namespace kestrune
