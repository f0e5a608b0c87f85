#include "adapters/awake/Inhibitors.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace kestrune {

constexpr std::uint64_t answerTime = 250'000;  // microseconds; longest wait of `inhibit`
// How long the service is not called after a timeout, or after an answer that it has no method "Inhibit".
constexpr Seconds pause{60.0};
constexpr std::size_t lateGrantLimit = 16;

bool InhibitorService::inhibit(std::uint32_t holder, const std::string& reason) {
  // Require an authenticated connection: sd_bus_call would wait for authentication without a time limit.
  while (isPresent() && clock.continuousTime() >= silentUntil && sd_bus_is_ready(bus) > 0) {
    Grant grant{owner.owner(), protocol.paths[path], 0, {}};
    // Call the unique name: a call to the well-known name would make the bus daemon start a service that has
    // ended.
    BusMessage call, reply;
    sd_bus_message_new_method_call(bus, Into(call), grant.owner.c_str(), grant.path, protocol.interface,
                                   "Inhibit");
    if (protocol.appendArguments(call.get(), reason.c_str()) < 0) return false;
    sd_bus_error error{};
    const int result = sd_bus_call(bus, call.get(), answerTime, &error, Into(reply));
    const bool isOffered = !sd_bus_error_has_names(
        &error, SD_BUS_ERROR_UNKNOWN_METHOD, SD_BUS_ERROR_UNKNOWN_OBJECT, SD_BUS_ERROR_UNKNOWN_INTERFACE,
        SD_BUS_ERROR_NOT_SUPPORTED, SD_BUS_ERROR_NAME_HAS_NO_OWNER, SD_BUS_ERROR_SERVICE_UNKNOWN);
    sd_bus_error_free(&error);
    if (result == -ETIMEDOUT) {
      silentUntil = clock.continuousTime() + pause;
      // Keep the grant, so that `answered` can release the inhibitor if the service grants it later.
      std::uint64_t serial = 0;
      sd_bus_message_get_cookie(call.get(), &serial);
      lateGrants.insert_or_assign(serial, std::move(grant));
      if (lateGrants.size() > lateGrantLimit) lateGrants.erase(lateGrants.begin());
    } else if (result >= 0 && read(reply.get(), grant)) {
      grants.insert_or_assign(holder, std::move(grant));
    }
    if (isOffered) return holds(holder);
    // The service has no "Inhibit" at this object path. From now on, use the next path. If this was the last
    // path, the service counts as absent for `pause`.
    if (++path < protocol.paths.size()) continue;
    path = 0;
    absentUntil = clock.continuousTime() + pause;
  }
  return false;
}

int InhibitorService::answered(sd_bus_message* message, sd_bus_error*) {
  std::uint64_t serial = 0;
  if (sd_bus_message_get_reply_cookie(message, &serial) < 0) return 0;
  const auto found = lateGrants.find(serial);
  if (found == lateGrants.end()) return 0;
  // Accept an answer only from the service, or from the bus daemon, which answers if the service is gone.
  const char* const sender = sd_bus_message_get_sender(message);
  if (!isFromBusDaemon(message) && (sender == nullptr || found->second.owner != sender)) return 0;
  auto late = lateGrants.extract(found);
  if (read(message, late.mapped())) release(late.mapped());
  return 1;
}

/// Reads the cookie or the descriptor in the service's reply into `grant`. Returns false for an error reply.
bool InhibitorService::read(sd_bus_message* reply, Grant& grant) const {
  if (protocol.releaseMethod != nullptr) return sd_bus_message_read(reply, "u", &grant.cookie) > 0;
  int descriptor = -1;
  if (sd_bus_message_read(reply, "h", &descriptor) <= 0) return false;
  // Duplicate the received descriptor (SCM_RIGHTS): the message owns the original, and will close it.
  grant.descriptor.reset(fcntl(descriptor, F_DUPFD_CLOEXEC, 3));
  return static_cast<bool>(grant.descriptor);
}

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
