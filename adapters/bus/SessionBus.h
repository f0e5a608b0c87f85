#pragma once

#include <systemd/sd-bus.h>

#include <memory>
#include <string_view>
#include <type_traits>
#include <vector>

#include "adapters/loop/EventLoop.h"

namespace kestrune {

/// The bus name and the object path of the bus daemon. `busName` is also the name of its D-Bus interface.
inline constexpr auto busName = "org.freedesktop.DBus";
inline constexpr auto busPath = "/org/freedesktop/DBus";

/// The names that this program gives itself in calls to D-Bus services. The desktop entries are named after
/// `applicationIdentifier`.
inline constexpr auto applicationName = "Kestrune";
inline constexpr auto applicationIdentifier = "com.dovrel.kestrune.menuclient";

struct BusUnref {
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
/// Owns a slot of sd-bus: an exported object, a match rule or a pending call. The destructor removes the
/// object or rule, or cancels the call.
using BusSlot = std::unique_ptr<sd_bus_slot, BusUnref>;

/// Owns a reference to a message; null when the message could not be created.
using BusMessage = std::unique_ptr<sd_bus_message, BusUnref>;

/// Passes a BusSlot or a BusMessage to a function of sd-bus that stores a new slot or message through a
/// pointer: write Into(slot) where the function expects sd_bus_slot**. If the function fails, `slot` becomes
/// null.
template <typename Owner>
struct Into {
  using Pointer = typename Owner::pointer;

  explicit Into(Owner& given) : owner(given) {}
  ~Into() { owner.reset(stored); }
  Into(const Into&) = delete;
  operator Pointer*() { return &stored; }

  Owner& owner;
  Pointer stored = nullptr;
};

/// Only declared, for decltype.
template <typename Class, typename Function>
Class& classOf(Function Class::*method);

/// Makes a message handler for sd-bus from a member function. The handler's user data must be the object. A
/// function that handles replies or signals is `void (sd_bus_message*)`. A function that handles method calls
/// or filters messages is `int (sd_bus_message*, sd_bus_error*)`: sd_bus_add_object(3) describes its result.
template <auto method>
int handler(sd_bus_message* message, void* data, sd_bus_error* error) {
  auto& object = *static_cast<std::remove_reference_t<decltype(classOf(method))>*>(data);
  if constexpr (std::is_invocable_v<decltype(method), decltype(object), sd_bus_message*>) {
    (object.*method)(message);
    return 0;
  } else {
    return (object.*method)(message, error);
  }
}

/// A reply handler for sd_bus_add_match_async; does nothing. If the bus daemon refuses the match rule, the
/// connection stays open, and only the signals of this rule do not arrive. Without a reply handler, sd-bus
/// would close the connection after a refusal.
inline int ignoreReply(sd_bus_message*, void*, sd_bus_error*) {
  return 0;
}

/// Returns whether the bus daemon sent the signal. A match rule does not ensure this: it filters broadcasts
/// only, and any process may send a unicast signal to this connection.
inline bool isFromBusDaemon(sd_bus_message* signal) {
  const char* const sender = sd_bus_message_get_sender(signal);
  return sender != nullptr && sender == std::string_view(busName);
}

/// Returns whether the signal is a broadcast. If the match rule names a sender, a broadcast comes from it; a
/// unicast signal may come from any process.
inline bool isBroadcast(sd_bus_message* signal) {
  return sd_bus_message_get_destination(signal) == nullptr;
}

class BusClient;

enum class BusKind { session, system };

/// A connection to a message bus. Connects again when the bus comes back. Use it on the main thread only.
class BusConnection {
 public:
  BusConnection(EventLoop& givenLoop, BusKind givenKind) : loop(givenLoop), kind(givenKind) {}
  ~BusConnection() { disconnect(); }

  /// Tells `client` of the current connection, if there is one, and of each later connection. Clients are
  /// told in the order in which they were added.
  void add(BusClient& client);
  void remove(BusClient& client) { std::erase(clients, &client); }

  /// Whether a missing bus is an error, or normal because the machine has no desktop.
  enum class Absence { fault, expected };

  /// Connects now, and again whenever the bus is lost. Without a bus, retries after 0.1 s, then with growing
  /// delays of at most 30 s. Prints each error once, but not a missing bus if `absence` is `expected`.
  void connect(Absence absence = Absence::fault);

  /// Blocks until the bus has authenticated the connection, for 20 ms at most. Without a connection, returns
  /// at once.
  void waitUntilReady();

  /// Takes ownership of the open connection `opened`, and tells all clients that it is open. Call this only
  /// while there is no other connection.
  void use(sd_bus* opened);

 private:
  friend BusClient;
  static constexpr Seconds firstRetry{0.1};

  void disconnect();
  /// Calls `connect` after `retryDelay`. Also handles the signal "Disconnected" (otherwise, the argument is
  /// null), because a connection must not be destroyed inside its own callback.
  void connectLater(sd_bus_message* disconnected);
  void answered(sd_bus_message* reply) {
    if (!sd_bus_message_is_method_error(reply, nullptr)) retryDelay = firstRetry;
  }

  EventLoop& loop;
  const BusKind kind;
  Absence absence = Absence::fault;
  std::vector<BusClient*> clients;
  sd_bus* bus = nullptr;
  BusSlot disconnection, firstAnswer;
  EventSource retry;
  Seconds retryDelay = firstRetry;
};

/// An object that uses a bus. On each new connection to the bus, it adds its match rules and exports its
/// D-Bus objects again. The destructor removes this client from `connection`.
class BusClient {
 public:
  /// `given` must outlive this object. A derived class that overrides a function below must call
  /// `connection.add`, which may call `busConnected` before it returns.
  explicit BusClient(BusConnection& given) : connection(given), bus(given.bus) {}
  virtual ~BusClient() { connection.remove(*this); }
  BusClient(const BusClient&) = delete;

  /// Called when a connection has been opened. This function may send messages at once: sd-bus queues the
  /// messages until the connection is authenticated.
  virtual void busConnected() {}

  /// Called when the connection is lost. The client may keep its slots: sd-bus runs none of their handlers.
  /// But reset a slot here if the client tests it for a pending call: it does not become null by itself.
  virtual void busLost() {}

 protected:
  BusConnection& connection;
  sd_bus* const& bus;  ///< the open connection; null while there is none, also during `busLost`
};

struct SessionBus final : BusConnection {
  explicit SessionBus(EventLoop& eventLoop) : BusConnection(eventLoop, BusKind::session) {}
};

struct SystemBus final : BusConnection {
  explicit SystemBus(EventLoop& eventLoop) : BusConnection(eventLoop, BusKind::system) {}
};

}  // namespace kestrune
