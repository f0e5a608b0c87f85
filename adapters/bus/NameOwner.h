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

  void busConnected() override {
    const std::string rule = std::string("type='signal',sender='") + busName + "',path='" + busPath +
                             "',interface='" + busName + "',member='NameOwnerChanged',arg0='" + name + "'";
    sd_bus_add_match_async(bus, Into(match), rule.c_str(), &handler<&NameOwner::changed>, &ignoreReply, this);
    sd_bus_call_method_async(bus, Into(question), busName, busPath, busName, "GetNameOwner",
                             &handler<&NameOwner::answered>, this, "s", name.c_str());
  }
  void busLost() override { current.reset(); }

  /// Returns whether the bus daemon has said who owns the name, or that nobody owns it.
  bool isKnown() const { return current.has_value(); }

  /// Returns the unique bus name of the owner; empty when there is no owner or it is unknown.
  std::string owner() const { return current.value_or(""); }

 private:
  void answered(sd_bus_message* reply) {
    // Ignore the reply if a NameOwnerChanged signal came before it: the signal has already set the owner.
    if (isKnown()) return;
    const sd_bus_error* const error = sd_bus_message_get_error(reply);
    const char* owner = "";
    if (sd_bus_error_has_name(error, SD_BUS_ERROR_NAME_HAS_NO_OWNER) ||
        (error == nullptr && sd_bus_message_read(reply, "s", &owner) >= 0))
      onChange(std::exchange(current, owner));
  }
  void changed(sd_bus_message* signal) {
    const char* after = nullptr;
    if (isFromBusDaemon(signal) && sd_bus_message_read(signal, "sss", nullptr, nullptr, &after) >= 0)
      onChange(std::exchange(current, after));
  }

  const std::string name;
  const Change onChange;
  std::optional<std::string> current;
  BusSlot match, question;
};

}  // namespace kestrune
