#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "adapters/bus/SessionBus.h"

namespace kestrune {

/// Tracks which program owns a bus name. Never starts a service and never blocks. Main thread.
class NameOwner final : public BusClient {
 public:
  /// `onChange` runs when the owner becomes known and after each change, but not when the bus is lost.
  /// `before`: the previous owner; empty if there was none, absent if it was unknown.
  using Change = std::function<void(const std::optional<std::string>& before)>;
  NameOwner(BusConnection& givenConnection, std::string givenName, Change givenOnChange)
      : BusClient(givenConnection), name(std::move(givenName)), onChange(std::move(givenOnChange)) {
    connection.add(*this);
  }

  void busConnected() override;
  void busLost() override { current.reset(); }

  /// Returns whether the bus daemon has said who owns the name, or that nobody owns it.
  bool isKnown() const { return current.has_value(); }

  /// Returns the unique bus name of the owner; empty when there is no owner or it is unknown.
  std::string owner() const { return current.value_or(""); }

 private:
  void answered(sd_bus_message* reply);
  void changed(sd_bus_message* signal);

  const std::string name;
  const Change onChange;
  std::optional<std::string> current;
  BusSlot match, question;
};

}  // namespace kestrune
