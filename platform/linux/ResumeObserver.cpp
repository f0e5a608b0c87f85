#include "platform/linux/ResumeObserver.h"

#include <utility>

namespace kestrune {

ResumeObserver::ResumeObserver(SystemBus& givenBus, std::function<void()> givenOnResume)
    : systemBus(givenBus), onResume(std::move(givenOnResume)) {
  systemBus.add(*this);
}

ResumeObserver::~ResumeObserver() {
  systemBus.remove(*this);
}

void ResumeObserver::busConnected(sd_bus* bus) {
  sd_bus_slot* slot = nullptr;
  if (sd_bus_match_signal_async(bus, &slot, "org.freedesktop.login1", "/org/freedesktop/login1",
                                "org.freedesktop.login1.Manager", "PrepareForSleep", &prepareForSleep,
                                &ignoreAnswer, this) >= 0) {
    match.reset(slot);
  }
}

void ResumeObserver::busLost() {
  match.reset();
}

int ResumeObserver::prepareForSleep(sd_bus_message* signal, void* self, sd_bus_error*) {
  if (!isForEverybody(signal)) return 0;
  int goesToSleep = 1;
  if (sd_bus_message_read(signal, "b", &goesToSleep) < 0 || goesToSleep != 0) return 0;
  // A copy, because the handler may destroy this.
  const auto handler = static_cast<ResumeObserver*>(self)->onResume;
  handler();
  return 0;
}

}  // namespace kestrune
