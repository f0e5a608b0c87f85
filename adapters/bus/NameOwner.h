#pragma once

#include <functional>
#include <string>

#include "adapters/bus/SessionBus.h"

namespace kestrune {

/// Tracks which program owns a bus name. Never starts a service and never blocks. Main thread.
class NameOwner final : public BusClient {
 public:
  /// `onChange` runs when the owner becomes known and after each change, but not when the bus is lost.
  /// `before`: the previous owner; empty if there was none, or if it was unknown.
  NameOwner(BusConnection& connection, std::string name,
            std::function<void(const std::string& before)> onChange);

  void busConnected() override;
  void busLost() override;

  /// Returns whether the bus daemon has said who owns the name, or that nobody owns it.
  bool isKnown() const { return known; }

  /// Returns the unique bus name of the owner; empty when there is no owner or it is unknown.
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
