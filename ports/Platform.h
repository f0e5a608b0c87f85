#pragma once

#include "ports/Alert.h"
#include "ports/Clock.h"
#include "ports/Desktop.h"
#include "ports/FileManager.h"
#include "ports/Image.h"
#include "ports/LaunchAgents.h"
#include "ports/LocalService.h"
#include "ports/Loop.h"
#include "ports/MainBundle.h"
#include "ports/PathMonitor.h"
#include "ports/PowerAssertions.h"
#include "ports/Process.h"
#include "ports/ServiceControl.h"
#include "ports/StatusFeed.h"
#include "ports/StatusItem.h"
#include "ports/UserDefaults.h"

namespace kestrune {

/// The ports: all interfaces through which the controller uses the machine. Every object to which a member
/// refers outlives the controller.
struct Platform {
  Application* application;
  Dispatch& dispatch;
  Clock& clock;
  StatusItem& statusItem;
  StatusFeed& statusFeed;
  Alerts& alerts;
  Images& images;
  Notifications& notifications;
  PowerAssertions& powerAssertions;
  PathMonitor& pathMonitor;
  UserDefaults& userDefaults;
  const MainBundle& mainBundle;
  FileManager& fileManager;
  Workspace& workspace;
  Processes& processes;
  const ServiceControl& serviceControl;
  LaunchAgents& launchAgents;
  LocalService& localService;
};

}  // namespace kestrune
