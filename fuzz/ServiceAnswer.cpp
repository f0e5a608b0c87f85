#include "fuzz/Controller.h"
#include "fuzz/Fuzz.h"
#include "text/Text.h"

// What the local service answers.

using namespace kestrune;
using fuzz::Controller;
using fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  Controller controller;
  auto& machine = controller.machine;
  machine.fileManager.files[Controller::envFile] = "KESTRUNE_MAC_SERVICE_TOKEN=token";
  machine.localService.answer = std::string(input.rest());
  int completions = 0;
  controller.delegate->refreshLiveSessionSnapshot([&completions] { ++completions; });
  machine.loop.settle();

  require(completions == 1, "an answer of any kind completes the query once");
  require(!controller.state.liveSessionRefreshInProgress, "the query has ended");
  for (const std::string& name : {controller.state.currentProjectTitle, controller.state.currentThreadName}) {
    require(!name.empty() && isValidUtf8(name), "a name is text");
  }
  const std::string& thread = controller.state.currentThreadName;
  require(shortened(AppDelegate::compactThreadName(thread), 34) == AppDelegate::compactThreadName(thread),
          "a thread's name has at most 34 characters");
  controller.delegate->rebuildMenu("", ConnectionLampState::ok, 0);
  return 0;
}
