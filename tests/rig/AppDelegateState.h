#pragma once

#include <ostream>

#include "KestruneMenuClient/AppDelegate.h"

namespace kestrune {

inline void PrintTo(const CommandResult& result, std::ostream* stream) {
  *stream << (result.ok ? "ok \"" : "not ok \"") << result.output << "\"";
}

/// Gives tests access to private fields of the controller. Tests cannot observe the values of these fields
/// through the interfaces in ports/.
struct AppDelegateState {
  AppDelegate& controller;

  std::unique_ptr<DispatchQueue>& monitorQueue = controller.monitorQueue;
  std::unique_ptr<Timer>& refreshTimer = controller.refreshTimer;
  bool& reconnectInProgress = controller.current.reconnecting;
  bool& statusRefreshInProgress = controller.statusRefreshInProgress;
  bool& liveSessionRefreshInProgress = controller.liveSessionRefreshInProgress;
};

}  // namespace kestrune
