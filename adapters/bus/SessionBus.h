#pragma once

#include <systemd/sd-bus.h>

#include <functional>
#include <memory>
#include <vector>

#include "adapters/loop/EventLoop.h"

namespace kestrune {

/// The message bus daemon, which answers on every bus. Its name is also the name of its interface.
inline constexpr auto busName = "org.freedesktop.DBus";
inline constexpr auto busPath = "/org/freedesktop/DBus";

struct BusSlotDeleter {
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
/// A slot of a bus connection: an exported object, a match rule or a pending call. Its destructor cancels it.
using BusSlot = std::unique_ptr<sd_bus_slot, BusSlotDeleter>;

struct BusMessageDeleter {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
/// A reference to a message; null when the message could not be created.
using BusMessage = std::unique_ptr<sd_bus_message, BusMessageDeleter>;

/// A reply handler for sd_bus_add_match_async that ignores a refused AddMatch: the signals are then missing.
/// Without a handler, sd-bus closes the connection, and we would reconnect and be refused again.
int ignoreReply(sd_bus_message* reply, void* data, sd_bus_error* error);

/// Whether the sender is the bus daemon. Match rules filter broadcasts only: any process may send this
/// connection a unicast signal.
bool isFromBusDaemon(sd_bus_message* signal);

/// Whether the signal is a broadcast. The bus delivers a broadcast only if it matches one of our rules,
/// sender included; a unicast signal arrives in any case.
bool isBroadcast(sd_bus_message* signal);

/// A user of a bus connection, which registers again on each new connection.
class BusClient {
 public:
  virtual ~BusClient() = default;

  /// A connection is open. sd-bus queues messages until the bus has authenticated it; nothing blocks.
  virtual void busConnected(sd_bus* bus) = 0;

  /// The connection is lost. Release every slot on it before returning.
  virtual void busLost() = 0;
};

enum class BusKind { session, system };

/// The connection to a message bus. Reconnects when the bus comes back. Main thread.
class BusConnection {
 public:
  BusConnection(EventLoop& loop, BusKind kind);
  ~BusConnection();
  BusConnection(const BusConnection&) = delete;
  BusConnection& operator=(const BusConnection&) = delete;

  /// Calls `client` for the connection, at once if there is one, and for each later connection. `client`
  /// outlives this or is removed.
  void add(BusClient& client);
  void remove(BusClient& client);

  /// Whether a missing socket of the bus is an error, or usual because there is no desktop.
  enum class Absence { fault, expected };

  /// Connects now, and again whenever the bus is lost. Without a bus, reports that on standard error once,
  /// unless that is expected, and retries after 0.1 s, then up to every 30 s.
  void connect(Absence absence = Absence::fault);

  bool isConnected() const { return bus != nullptr; }

 private:
  void tryToConnect();
  void disconnect();
  void connectLater();
  static int answered(sd_bus_message* reply, void* self, sd_bus_error* error);
  static int disconnected(sd_bus_message* message, void* self, sd_bus_error* error);

  EventLoop& loop;
  const BusKind kind;
  Absence absence = Absence::fault;
  std::vector<BusClient*> clients;
  sd_bus* bus = nullptr;
  BusSlot disconnection;
  BusSlot firstAnswer;
  EventSource retry;
  Seconds retryDelay;
};

class SessionBus final : public BusConnection {
 public:
  explicit SessionBus(EventLoop& eventLoop) : BusConnection(eventLoop, BusKind::session) {}
};

class SystemBus final : public BusConnection {
 public:
  explicit SystemBus(EventLoop& eventLoop) : BusConnection(eventLoop, BusKind::system) {}
};

}  // namespace kestrune
