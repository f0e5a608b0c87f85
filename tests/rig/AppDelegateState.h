#pragma once

#include "KestruneMenuClient/AppDelegate.h"

namespace kestrune {

/// The tests' view of what no port shows.
struct AppDelegateState {
  AppDelegate& controller;

  std::unique_ptr<DispatchQueue>& monitorQueue = controller.monitorQueue;
  std::unique_ptr<Timer>& refreshTimer = controller.refreshTimer;
  std::string& currentProjectTitle = controller.currentProjectTitle;
  bool& reconnectInProgress = controller.reconnectInProgress;
  bool& statusRefreshInProgress = controller.statusRefreshInProgress;
  bool& liveSessionRefreshInProgress = controller.liveSessionRefreshInProgress;
};

}  // namespace kestrune
