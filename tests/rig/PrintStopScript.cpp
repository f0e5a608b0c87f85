#include <cstdio>

#include "KestruneMenuClient/AppDelegate.h"
#include "adapters/children/SystemdServiceControl.h"
#include "tests/rig/FakePlatform.h"

// Writes the shell lines by which the client of this host stops the backend. Run them only in a PID
// namespace: they end every process that looks like a backend.

int main() {
  kestrune::testing::FakePlatform fakes;
  const kestrune::SystemdServiceControl services;
  auto platform = kestrune::testing::platformWith(fakes, {.serviceControl = &services});
  const auto controller = std::make_shared<kestrune::AppDelegate>(platform);
  std::fputs(controller->backendServiceStopCommand().c_str(), stdout);
}
