#pragma once

#include <functional>
#include <string>

#include "adapters/bus/SessionBus.h"

namespace kestrune {

/// Tracks the owner of a bus name (NameOwnerChanged). Never starts a service and never blocks. Main thread.
class NameOwner {
 public:
  /// `onChange` runs when the owner becomes known and after each change. `before` is the previous owner:
  /// empty if there was none or it was unknown. It does not run when the bus is lost.
  NameOwner(std::string name, std::function<void(const std::string& before)> onChange);
  NameOwner(const NameOwner&) = delete;
  NameOwner& operator=(const NameOwner&) = delete;

  void busConnected(sd_bus* bus);
  void busLost();

  /// Whether the bus has answered: the name has an owner or has none.
  bool isKnown() const { return known; }

  /// The unique name of the owner; empty when there is none or it is unknown.
  const std::string& owner() const { return current; }

 private:
  void set(std::string owner);
  static int answered(sd_bus_message* reply, void* self, sd_bus_error* error);
  static int changed(sd_bus_message* signal, void* self, sd_bus_error* error);

  const std::string name;
  const std::function<void(const std::string&)> onChange;
  bool known = false;
  std::string current;
  BusSlot match, question;
};

}  // namespace kestrune
