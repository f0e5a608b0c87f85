#pragma once

#include <functional>

#include "platform/linux/SessionBus.h"

namespace kestrune {

/// Hears from logind that the machine has resumed from sleep. Without a system bus, or without logind, it
/// hears nothing. Main thread.
class ResumeObserver final : public BusClient {
 public:
  /// Calls `onResume` after each resume from now on. `bus` outlives this.
  ResumeObserver(SystemBus& bus, std::function<void()> onResume);
  ~ResumeObserver() override;
  ResumeObserver(const ResumeObserver&) = delete;
  ResumeObserver& operator=(const ResumeObserver&) = delete;

  void busConnected(sd_bus* bus) override;
  void busLost() override;

 private:
  static int prepareForSleep(sd_bus_message* signal, void* self, sd_bus_error* error);

  SystemBus& systemBus;
  const std::function<void()> onResume;
  BusSlot match;
};

}  // namespace kestrune
