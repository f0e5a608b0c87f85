#pragma once

#include "KestruneMenuClient/AppDelegate.h"

namespace kestrune {

/// The tests' view of the controller's fields.
struct AppDelegateState {
  AppDelegate& controller;

  std::unique_ptr<StatusItem>& statusItem = controller.statusItem;
  std::unique_ptr<PathMonitor>& pathMonitor = controller.pathMonitor;
  std::unique_ptr<DispatchQueue>& monitorQueue = controller.monitorQueue;
  const std::string& repoPath = controller.repoPath;
  const std::string& launchAgentLabel = controller.launchAgentLabel;
  const std::string& legacyLaunchAgentLabel = controller.legacyLaunchAgentLabel;
  std::string& lastPathDescription = controller.lastPathDescription;
  std::string& currentProjectTitle = controller.currentProjectTitle;
  std::string& currentThreadName = controller.currentThreadName;
  std::string& codexVersionSummary = controller.codexVersionSummary;
  std::string& codexRemoteControlSummary = controller.codexRemoteControlSummary;
  std::string& codexAppSummary = controller.codexAppSummary;
  std::string& chatGPTRemoteSummary = controller.chatGPTRemoteSummary;
  ImageRef& cachedConnectedLogo = controller.cachedConnectedLogo;
  ImageRef& cachedDisconnectedLogo = controller.cachedDisconnectedLogo;
  std::unique_ptr<DispatchQueue>& workerQueue = controller.workerQueue;
  bool& reconnectInProgress = controller.reconnectInProgress;
  bool& statusRefreshInProgress = controller.statusRefreshInProgress;
  bool& liveSessionRefreshInProgress = controller.liveSessionRefreshInProgress;
  std::optional<Seconds>& lastLiveSessionRefreshAt = controller.lastLiveSessionRefreshAt;
  std::unique_ptr<Timer>& refreshTimer = controller.refreshTimer;
  std::uint32_t& displaySleepAssertionID = controller.displaySleepAssertionID;
  std::uint32_t& systemSleepAssertionID = controller.systemSleepAssertionID;
  bool& sleepAssertionActive = controller.sleepAssertionActive;
};

}  // namespace kestrune
