#pragma once

#include "platform/Alert.h"
#include "platform/Application.h"
#include "platform/Clock.h"
#include "platform/DispatchQueue.h"
#include "platform/FileManager.h"
#include "platform/Image.h"
#include "platform/LaunchAgents.h"
#include "platform/LocalService.h"
#include "platform/MainBundle.h"
#include "platform/Notifications.h"
#include "platform/PathMonitor.h"
#include "platform/PowerAssertions.h"
#include "platform/Process.h"
#include "platform/QRCode.h"
#include "platform/Requests.h"
#include "platform/ServiceControl.h"
#include "platform/StatusFeed.h"
#include "platform/StatusItem.h"
#include "platform/Timer.h"
#include "platform/UserDefaults.h"
#include "platform/Workspace.h"

namespace kestrune {

/// Everything that the controller asks of a machine. What is referred to outlives the controller.
struct Platform {
  Application*
      application;  ///< null only where the host failed to make one; a controller refuses to start then
  Dispatch& dispatch;
  Timers& timers;
  Clock& clock;
  StatusBar& statusBar;
  StatusFeed& statusFeed;
  Requests& requests;
  Alerts& alerts;
  Images& images;
  Notifications& notifications;
  PowerAssertions& powerAssertions;
  PathMonitors& pathMonitors;
  UserDefaults& userDefaults;
  const MainBundle& mainBundle;
  FileManager& fileManager;
  Workspace& workspace;
  Processes& processes;
  const ServiceControl& serviceControl;
  LaunchAgents& launchAgents;
  LocalService& localService;
  QRCodeGenerator& qrCodes;
};

}  // namespace kestrune
