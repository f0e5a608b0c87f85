#pragma once

#include <systemd/sd-bus.h>

#include <functional>
#include <memory>
#include <vector>

#include "adapters/loop/EventLoop.h"

namespace kestrune {

/// The bus itself, as one that can be asked on every bus. Its interface has the name, too.
inline constexpr auto busName = "org.freedesktop.DBus";
inline constexpr auto busPath = "/org/freedesktop/DBus";

struct BusSlotDeleter {
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
/// Something registered on a bus connection: an object, a match, or a call that waits for its answer.
/// Cancelled when this goes.
using BusSlot = std::unique_ptr<sd_bus_slot, BusSlotDeleter>;

struct BusMessageDeleter {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
/// A reference to a message; null when it could not be made.
using BusMessage = std::unique_ptr<sd_bus_message, BusMessageDeleter>;

/// For a request to be told of signals: a bus that refuses it leaves its asker without them. Without a
/// handler, a refusal would end the connection, which others use too, and which would be made anew for ever.
int ignoreAnswer(sd_bus_message* reply, void* data, sd_bus_error* error);

/// Whether the bus itself says this. A match does not tell: it is asked only of what goes to everybody, so
/// that anybody may send this connection any signal under its unique name.
bool isFromBus(sd_bus_message* signal);

/// Whether a signal went to everybody, and so, unlike one to this connection alone, only to whom the bus
/// found a match for, with the sender that it names.
bool isForEverybody(sd_bus_message* signal);

/// What uses the bus, and starts over with each connection.
class BusClient {
 public:
  virtual ~BusClient() = default;

  /// There is a connection. What is sent on it waits until the bus has answered; nothing blocks.
  virtual void busConnected(sd_bus* bus) = 0;

  /// The connection is gone, and every slot on it is to be let go before this returns.
  virtual void busLost() = 0;
};

enum class BusKind { session, system };

/// The connection to a message bus. Connects anew when the bus goes and comes back. Main thread.
class BusConnection {
 public:
  BusConnection(EventLoop& loop, BusKind kind);
  ~BusConnection();
  BusConnection(const BusConnection&) = delete;
  BusConnection& operator=(const BusConnection&) = delete;

  /// Tells `client` of the connection: at once if there is one, and of each later one. It outlives the bus or
  /// is removed.
  void add(BusClient& client);
  void remove(BusClient& client);

  /// What a bus is whose socket is not there: a fault to be told, or usual where there is no desktop.
  enum class Absence { fault, expected };

  /// Tries to connect, now and whenever the bus is lost. Without a bus it says so on standard error, and goes
  /// on trying now and then.
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

/// The user's own bus.
class SessionBus final : public BusConnection {
 public:
  explicit SessionBus(EventLoop& eventLoop) : BusConnection(eventLoop, BusKind::session) {}
};

/// The bus of the machine.
class SystemBus final : public BusConnection {
 public:
  explicit SystemBus(EventLoop& eventLoop) : BusConnection(eventLoop, BusKind::system) {}
};

}  // namespace kestrune
