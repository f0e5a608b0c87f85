#include "adapters/awake/Inhibitors.h"

#include <algorithm>
#include <initializer_list>
#include <iterator>
#include <utility>

#include "adapters/system/Identity.h"

namespace kestrune {

namespace {

constexpr auto applicationName = "Kestrune";

int appendNameAndReason(sd_bus_message* call, const char* reason) {
  return sd_bus_message_append(call, "ss", applicationName, reason);
}

const InhibitorProtocol gnomeSessionManager{
    .name = "org.gnome.SessionManager",
    .interface = "org.gnome.SessionManager",
    .paths = {"/org/gnome/SessionManager"},
    .giveBackMethod = "Uninhibit",
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
    .giveBackMethod = "UnInhibit",
    .appendArguments = &appendNameAndReason,
};

const InhibitorProtocol freedesktopPowerManagement{
    .name = "org.freedesktop.PowerManagement",
    .interface = "org.freedesktop.PowerManagement.Inhibit",
    .paths = {"/org/freedesktop/PowerManagement/Inhibit"},
    .giveBackMethod = "UnInhibit",
    .appendArguments = &appendNameAndReason,
};

const InhibitorProtocol logind{
    .name = "org.freedesktop.login1",
    .interface = "org.freedesktop.login1.Manager",
    .paths = {"/org/freedesktop/login1"},
    .giveBackMethod = nullptr,
    .appendArguments =
        [](sd_bus_message* call, const char* reason) {
          return sd_bus_message_append(call, "ssss", "idle", applicationName, reason, "block");
        },
};

}  // namespace

Inhibitors::Inhibitors(SessionBus& sessionBus, SystemBus& systemBus, const Clock& clock)
    : sessionManager(sessionBus, clock, gnomeSessionManager, [this] { settle(); }),
      screenSaver(sessionBus, clock, freedesktopScreenSaver, [this] { settle(); }),
      powerManagement(sessionBus, clock, freedesktopPowerManagement, [this] { settle(); }),
      login(systemBus, clock, logind, [this] { settle(); }) {}

std::optional<std::uint32_t> Inhibitors::create(PowerAssertionType type, int, const std::string& name) {
  // Skip 0, which stands for no assertion. After an overflow, also skip identifiers that are still in use.
  do ++lastIdentifier;
  while (lastIdentifier == 0 || assertions.contains(lastIdentifier));
  const std::uint32_t identifier = lastIdentifier;
  Assertion assertion{type, name};
  if (!inhibit(identifier, assertion)) {
    giveBack(identifier);
    return std::nullopt;
  }
  assertions.emplace(identifier, std::move(assertion));
  settle();
  return identifier;
}

bool Inhibitors::isHeld(std::uint32_t identifier) {
  const auto found = assertions.find(identifier);
  if (found == assertions.end()) return false;
  const auto services = servicesFor(found->second.type);
  return !services.empty() &&
         std::all_of(services.begin(), services.end(),
                     [identifier](const InhibitorService* each) { return each->holds(identifier); });
}

void Inhibitors::release(std::uint32_t identifier) {
  if (assertions.erase(identifier) == 0) return;
  giveBack(identifier);
  settle();
}

/// Returns the running services that must each grant an inhibitor for an assertion of this type.
Inhibitors::Services Inhibitors::servicesFor(PowerAssertionType type) {
  Services found;
  const auto addPresent = [&found](std::initializer_list<InhibitorService*> services) {
    std::copy_if(services.begin(), services.end(), std::back_inserter(found),
                 [](const InhibitorService* each) { return each->isPresent(); });
  };
  if (type == PowerAssertionType::preventUserIdleSystemSleep) {
    addPresent({&login, &powerManagement});
    return found;
  }
  addPresent({&sessionManager});
  if (found.empty()) addPresent({&screenSaver, &powerManagement});
  if (found.empty()) addPresent({&login});
  return found;
}

bool Inhibitors::inhibit(std::uint32_t identifier, const Assertion& assertion) {
  for (;;) {
    // Look the services up again each time: if a service turns out to lack the method, others take its place.
    const auto services = servicesFor(assertion.type);
    if (services.empty()) return false;
    const auto next =
        std::find_if(services.begin(), services.end(),
                     [identifier](const InhibitorService* each) { return !each->holds(identifier); });
    if (next == services.end()) return true;
    if (!(*next)->inhibit(identifier, assertion.name) && (*next)->isPresent()) return false;
  }
}

void Inhibitors::giveBack(std::uint32_t identifier) {
  for (auto* const service : all) service->giveBack(identifier);
}

/// For each assertion, requests the inhibitors that are missing. If none is missing, gives back the
/// inhibitors that are no longer needed. Runs when a service has appeared, vanished or answered, and after
/// `create` and `release`.
void Inhibitors::settle() {
  for (const auto& [identifier, assertion] : assertions) {
    const auto services = servicesFor(assertion.type);
    bool held = true;
    for (auto* const service : services) {
      if (service->holds(identifier)) continue;
      held = false;
      service->inhibitLater(identifier, assertion.name);
    }
    if (!held) continue;
    // Give unneeded inhibitors back only now that all needed ones are held: the machine must stay awake.
    for (auto* const service : all) {
      const bool needed = std::find(services.begin(), services.end(), service) != services.end();
      if (!needed && service->holds(identifier)) service->giveBack(identifier);
    }
  }
}

}  // namespace kestrune
