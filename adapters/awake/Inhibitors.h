#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "adapters/bus/NameOwner.h"
#include "adapters/system/System.h"
#include "ports/Clock.h"
#include "ports/PowerAssertions.h"

namespace kestrune {

/// The D-Bus methods of a service that grants idle inhibitors (which keep the machine or display awake).
struct InhibitorProtocol {
  const char* name;       ///< bus name of the service
  const char* interface;  ///< the interface that has the method "Inhibit"
  /// The object paths to try, in this order, because desktops use different paths.
  std::vector<const char*> paths;
  /// The method that releases an inhibitor by its cookie. Null for a service that grants a descriptor instead
  /// of a cookie: closing the descriptor releases the inhibitor.
  const char* releaseMethod;
  int (*appendArguments)(sd_bus_message* call, const char* reason);
};

/// A client of a service that grants idle inhibitors. Keeps the inhibitors that the service has granted.
/// Never makes the bus daemon start the service. The destructor releases all inhibitors. Main thread.
class InhibitorService final : public BusClient {
 public:
  /// The connection, the clock and the protocol must outlive this object.
  InhibitorService(BusConnection& given, const Clock& givenClock, const InhibitorProtocol& givenProtocol)
      : BusClient(given), clock(givenClock), protocol(givenProtocol) {
    connection.add(*this);
  }
  ~InhibitorService() override {
    for (const auto& [holder, grant] : grants) release(grant);
  }

  /// Returns whether the service is known to run. For a minute after the service has answered that it lacks
  /// the method "Inhibit", returns false; then true again, because the service may have been starting.
  bool isPresent() const { return !owner.owner().empty() && clock.continuousTime() >= absentUntil; }

  /// Requests an inhibitor for `holder`, a number other than 0 that the caller chooses. Waits at most 250 ms
  /// for the answer, and returns whether `holder` now has an inhibitor. Returns false at once while
  /// `isPresent` is false. After a timeout, returns false at once for a minute, or until the service
  /// restarts.
  bool inhibit(std::uint32_t holder, const std::string& reason);
  /// Releases the inhibitor of `holder`, if any.
  void release(std::uint32_t holder) {
    if (const auto granted = grants.extract(holder)) release(granted.mapped());
  }
  /// Returns whether `holder` has an inhibitor from the process that owns the service's bus name now. When
  /// the bus connection is lost, all inhibitors are lost too.
  bool holds(std::uint32_t holder) const {
    const auto found = grants.find(holder);
    return found != grants.end() && found->second.owner == owner.owner();
  }

  void busConnected() override {
    // Use a filter, because sd-bus calls no handler for the late answer to a call that timed out.
    sd_bus_add_filter(bus, Into(answers), &handler<&InhibitorService::answered>, this);
  }
  void busLost() override {
    grants.clear();
    lateGrants.clear();
  }

 private:
  struct Grant {
    std::string owner;  ///< unique name of the granting service
    const char* path = nullptr;
    std::uint32_t cookie = 0;
    FileDescriptor descriptor;
  };

  bool read(sd_bus_message* reply, Grant& grant) const;
  /// Releases an inhibitor that has a cookie. Calls the unique name of the process that granted it, because
  /// no other process knows the cookie. An inhibitor without a cookie ends when its descriptor is closed.
  void release(const Grant& grant) const {
    if (protocol.releaseMethod == nullptr || bus == nullptr) return;
    sd_bus_call_method_async(bus, nullptr, grant.owner.c_str(), grant.path, protocol.interface,
                             protocol.releaseMethod, nullptr, nullptr, "u", grant.cookie);
  }
  int answered(sd_bus_message* message, sd_bus_error* error);

  const Clock& clock;
  const InhibitorProtocol& protocol;
  NameOwner owner{connection, protocol.name, [this](const auto&) {
                    path = 0;
                    absentUntil = silentUntil = clock.continuousTime();
                  }};

  std::size_t path = 0;                   ///< index of the path in use, in `protocol.paths`
  Seconds absentUntil{};                  ///< `isPresent` is false until this time (Clock::continuousTime)
  Seconds silentUntil{};                  ///< no request is sent until this time (Clock::continuousTime)
  std::map<std::uint32_t, Grant> grants;  ///< key: holder
  /// Requests that timed out. If the service grants one later, `answered` releases the inhibitor. Key:
  /// serial number of the call.
  std::map<std::uint64_t, Grant> lateGrants;
  BusSlot answers;
};

/// Keeps the machine or its display awake (power assertions). For each assertion, `create` requests idle
/// inhibitors from D-Bus services, and waits at most 250 ms for each service. Never inhibits suspend itself.
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
