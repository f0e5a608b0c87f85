#include "adapters/bus/NameOwner.h"

namespace kestrune {

void NameOwner::busConnected() {
  const std::string rule = std::string("type='signal',sender='") + busName + "',path='" + busPath +
                           "',interface='" + busName + "',member='NameOwnerChanged',arg0='" + name + "'";
  sd_bus_add_match_async(bus, Into(match), rule.c_str(), &handler<&NameOwner::changed>, &ignoreReply, this);
  sd_bus_call_method_async(bus, Into(question), busName, busPath, busName, "GetNameOwner",
                           &handler<&NameOwner::answered>, this, "s", name.c_str());
}

void NameOwner::answered(sd_bus_message* reply) {
  // Ignore the reply if a NameOwnerChanged signal came before it: the signal has already set the owner.
  if (isKnown()) return;
  const sd_bus_error* const error = sd_bus_message_get_error(reply);
  const char* owner = "";
  if (sd_bus_error_has_name(error, SD_BUS_ERROR_NAME_HAS_NO_OWNER) ||
      (error == nullptr && sd_bus_message_read(reply, "s", &owner) >= 0))
    onChange(std::exchange(current, owner));
}

void NameOwner::changed(sd_bus_message* signal) {
  const char* after = nullptr;
  if (isFromBusDaemon(signal) && sd_bus_message_read(signal, "sss", nullptr, nullptr, &after) >= 0)
    onChange(std::exchange(current, after));
}

}  // namespace kestrune
