#include "adapters/awake/Inhibitors.h"

#include <algorithm>

namespace kestrune {

static int appendNameAndReason(sd_bus_message* call, const char* reason) {
  return sd_bus_message_append(call, "ss", applicationName, reason);
}

const InhibitorProtocol gnomeSessionManager{
    .name = "org.gnome.SessionManager",
    .interface = "org.gnome.SessionManager",
    .paths = {"/org/gnome/SessionManager"},
    .releaseMethod = "Uninhibit",
    .appendArguments =
        [](sd_bus_message* call, const char* reason) {
          constexpr std::uint32_t noWindow = 0, idle = 8;
          return sd_bus_message_append(call, "susu", applicationIdentifier, noWindow, reason, idle);
        },
};

const InhibitorProtocol freedesktopScreenSaver{
    .name = "org.freedesktop.ScreenSaver",
    .interface = "org.freedesktop.ScreenSaver",
    .paths = {"/org/freedesktop/ScreenSaver", "/ScreenSaver"},
    .releaseMethod = "UnInhibit",
    .appendArguments = &appendNameAndReason,
};

const InhibitorProtocol freedesktopPowerManagement{
    .name = "org.freedesktop.PowerManagement",
    .interface = "org.freedesktop.PowerManagement.Inhibit",
    .paths = {"/org/freedesktop/PowerManagement/Inhibit"},
    .releaseMethod = "UnInhibit",
    .appendArguments = &appendNameAndReason,
};

const InhibitorProtocol logind{
    .name = "org.freedesktop.login1",
    .interface = "org.freedesktop.login1.Manager",
    .paths = {"/org/freedesktop/login1"},
    .releaseMethod = nullptr,
    .appendArguments =
        [](sd_bus_message* call, const char* reason) {
          return sd_bus_message_append(call, "ssss", "idle", applicationName, reason, "block");
        },
};

Inhibitors::Inhibitors(SessionBus& sessionBus, SystemBus& systemBus, const Clock& clock)
    : sessionManager(sessionBus, clock, gnomeSessionManager),
      screenSaver(sessionBus, clock, freedesktopScreenSaver),
      powerManagement(sessionBus, clock, freedesktopPowerManagement),
      login(systemBus, clock, logind) {}

std::optional<std::uint32_t> Inhibitors::create(PowerAssertionType type, int, const std::string& name) {
  const std::uint32_t identifier = ++lastIdentifier;
  assertions.emplace(identifier, type);
  // Call `servicesFor` in each pass of this loop. When a service turns out to have no method "Inhibit", its
  // `isPresent` becomes false, and `servicesFor` may return other services.
  while (!isHeld(identifier)) {
    const auto services = servicesFor(type);
    const auto next =
        std::ranges::find_if(services, [&](const auto* each) { return !each->holds(identifier); });
    if (next != services.end() && ((*next)->inhibit(identifier, name) || !(*next)->isPresent())) continue;
    release(identifier);
    return std::nullopt;
  }
  return identifier;
}

bool Inhibitors::isHeld(std::uint32_t identifier) {
  const auto found = assertions.find(identifier);
  if (found == assertions.end()) return false;
  const auto services = servicesFor(found->second);
  return !services.empty() &&
         std::ranges::all_of(services, [&](const auto* each) { return each->holds(identifier); });
}

/// Returns the running services that must each grant an inhibitor for an assertion of this type.
Inhibitors::Services Inhibitors::servicesFor(PowerAssertionType type) {
  const auto present = [](Services services) {
    std::erase_if(services, [](const InhibitorService* each) { return !each->isPresent(); });
    return services;
  };
  // logind alone is not enough: the power-management service can suspend the machine by itself.
  if (type == PowerAssertionType::preventUserIdleSystemSleep) return present({&login, &powerManagement});
  Services found = present({&sessionManager});
  if (found.empty()) found = present({&screenSaver, &powerManagement});
  if (found.empty()) found = present({&login});
  return found;
}

}  // namespace kestrune
