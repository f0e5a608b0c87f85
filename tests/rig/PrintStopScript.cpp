#include <cstdio>

#include "KestruneMenuClient/AppDelegate.h"
#include "adapters/children/SystemdServiceControl.h"
#include "tests/rig/FakePlatform.h"

// Prints the shell lines by which the client stops the backend on this operating system. Run these lines only
// in a PID namespace, because they kill every process that looks like a backend.

int main() {
  kestrune::testing::FakePlatform fakes;
  const kestrune::SystemdServiceControl services;
  auto platform = kestrune::testing::platformWith(fakes, {.serviceControl = &services});
  const auto controller = std::make_shared<kestrune::AppDelegate>(platform);
  std::fputs(controller->backendServiceStopCommand().c_str(), stdout);
}
