#pragma once

#include <memory>

#include "tests/rig/AppDelegateState.h"
#include "tests/rig/FakePlatform.h"

namespace kestrune::fuzz {

/// A controller (AppDelegate) on a fake machine. The constructor puts the client's item into the status bar.
struct Controller {
  static constexpr auto envFile = "/home/u/backend/.env";
  static constexpr auto templateFile = "/home/u/backend/.env.example";

  testing::FakePlatform machine;
  std::shared_ptr<AppDelegate> delegate = std::make_shared<AppDelegate>(machine.platform);
  AppDelegateState state{*delegate};

  Controller() { delegate->configureStatusItem(); }
};

}  // namespace kestrune::fuzz
