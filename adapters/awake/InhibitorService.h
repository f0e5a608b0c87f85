#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "adapters/bus/NameOwner.h"
#include "adapters/bus/SessionBus.h"
#include "adapters/system/FileDescriptor.h"
#include "ports/Clock.h"

namespace kestrune {

/// The D-Bus methods by which a service grants an idle inhibitor and takes it back.
struct InhibitorProtocol {
  const char* name;       ///< bus name of the service
  const char* interface;  ///< with the method "Inhibit"
  /// Possible object paths, because desktops differ. They are tried in order.
  std::vector<const char*> paths;
  /// The method that releases a cookie. Null for a service that returns a descriptor: closing it releases the
  /// inhibitor.
  const char* giveBackMethod;
  int (*appendArguments)(sd_bus_message* call, const char* reason);
};

/// One service that grants idle inhibitors, and the inhibitors that it has granted. Never starts the service.
/// The destructor gives everything back. Main thread.
class InhibitorService final : public BusClient {
 public:
  /// `connection` and `clock` outlive this. `onChange` runs when the service appears or vanishes, and when a
  /// request of `inhibitLater` is granted.
  InhibitorService(BusConnection& connection, const Clock& clock, InhibitorProtocol protocol,
                   std::function<void()> onChange);
  ~InhibitorService() override;
  InhibitorService(const InhibitorService&) = delete;
  InhibitorService& operator=(const InhibitorService&) = delete;

  /// Whether the service is known to run. False if it lacked the method within the last minute.
  bool isPresent() const;

  /// Requests an inhibitor for `holder`, a number of the caller's choice but not 0. Blocks for the answer,
  /// 250 ms at most; after a timeout, refuses for a minute without asking. False if it was refused, or if the
  /// service turned out to lack the method and is not present any more.
  bool inhibit(std::uint32_t holder, const std::string& reason);
  /// Requests an inhibitor without blocking. Does nothing while a request for `holder` is pending, and for a
  /// minute after a timeout.
  void inhibitLater(std::uint32_t holder, const std::string& reason);
  /// Gives back the inhibitor of `holder`, if any, and one that a pending request brings later.
  void giveBack(std::uint32_t holder);
  /// Whether the inhibitor of `holder` is in force, as far as known: the process that granted it still runs.
  bool holds(std::uint32_t holder) const;

  void busConnected(sd_bus* bus) override;
  void busLost() override;

 private:
  struct Grant {
    std::string owner;  ///< unique name of the service; empty after the bus was lost
    const char* path = nullptr;
    std::uint32_t cookie = 0;
    FileDescriptor descriptor;
  };
  /// A request without an answer.
  struct Request {
    std::uint64_t serial;  ///< of the method call
    std::uint32_t holder;  ///< 0 when the inhibitor is not wanted any more
    std::string owner;     ///< unique name that was called
    const char* path;
  };

  BusMessage newRequest(const std::string& reason) const;
  bool mayBeAsked() const;
  void expectAnswer(std::uint64_t serial, std::uint32_t holder);
  bool take(const Request& request, sd_bus_message* reply, const sd_bus_error* error);
  std::optional<Grant> grantFrom(const Request& request, sd_bus_message* reply) const;
  void giveBack(const Grant& grant) const;
  void ownerChanged();
  static int answered(sd_bus_message* message, void* self, sd_bus_error* error);

  BusConnection& connection;
  const Clock& clock;
  const InhibitorProtocol protocol;
  const std::function<void()> onChange;
  NameOwner owner;

  sd_bus* bus = nullptr;
  std::size_t path = 0;                   ///< index of the path in use, in the protocol's paths
  Seconds absentUntil;                    ///< on Clock::continuousTime
  Seconds silentUntil;                    ///< on Clock::continuousTime
  std::map<std::uint32_t, Grant> grants;  ///< by holder
  std::deque<Request> requests;           ///< the oldest first
  BusSlot answers;
};

}  // namespace kestrune
