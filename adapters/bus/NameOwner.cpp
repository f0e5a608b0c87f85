#include "adapters/bus/NameOwner.h"

#include <utility>

namespace kestrune {

NameOwner::NameOwner(BusConnection& givenConnection, std::string givenName, Change givenOnChange)
    : BusClient(givenConnection), name(std::move(givenName)), onChange(std::move(givenOnChange)) {
  connection.add(*this);
}

void NameOwner::busConnected() {
  const std::string rule = std::string("type='signal',sender='") + busName + "',path='" + busPath +
                           "',interface='" + busName + "',member='NameOwnerChanged',arg0='" + name + "'";
  sd_bus_add_match_async(bus, Into(match), rule.c_str(), &changed, &ignoreReply, this);
  BusMessage call;
  if (sd_bus_message_new_method_call(bus, Into(call), busName, busPath, busName, "GetNameOwner") < 0) return;
  // Set no timeout. A stopped bus daemon (SIGSTOP) answers only after SIGCONT. A timeout would end the call
  // with an error before that. The call is not repeated, so the owner would stay unknown.
  if (sd_bus_message_append(call.get(), "s", name.c_str()) >= 0)
    sd_bus_call_async(bus, Into(question), call.get(), &answered, this, UINT64_MAX);
}

void NameOwner::busLost() {
  match.reset();
  question.reset();
  current.reset();
}

void NameOwner::set(std::string owner) {
  onChange(std::exchange(current, std::move(owner)));
}

int NameOwner::answered(sd_bus_message* reply, void* data, sd_bus_error*) {
  auto& self = *static_cast<NameOwner*>(data);
  // Ignore the reply if a NameOwnerChanged signal came before it: the signal has already set the owner.
  if (self.isKnown()) return 0;
  const char* owner = nullptr;
  if (const sd_bus_error* const error = sd_bus_message_get_error(reply)) {
    if (sd_bus_error_has_name(error, SD_BUS_ERROR_NAME_HAS_NO_OWNER)) self.set({});
  } else if (sd_bus_message_read(reply, "s", &owner) >= 0) {
    self.set(owner);
  }
  return 0;
}

int NameOwner::changed(sd_bus_message* signal, void* data, sd_bus_error*) {
  const char* name = nullptr;
  const char* before = nullptr;
  const char* after = nullptr;
  if (isFromBusDaemon(signal) && sd_bus_message_read(signal, "sss", &name, &before, &after) >= 0) {
    static_cast<NameOwner*>(data)->set(after);
  }
  return 0;
}

}  // namespace kestrune
