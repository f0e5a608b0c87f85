#include "KestruneMenuClient/AppDelegate.h"
#include "text/Text.h"

namespace kestrune {

namespace {

/// The longest time that a program may take to print its version.
constexpr Seconds trialLimit{2.0};

}  // namespace

void AppDelegate::tryProgram(const std::string& executable,
                             const std::function<void(const Result<>&)>& then) {
  auto launched = platform.processes.launch(executable, {"--version"});
  if (!launched) return then(Failure{launched.reason()});
  awaitTrial(std::move(*launched), platform.clock.awakeTime() + trialLimit, then);
}

void AppDelegate::awaitTrial(const std::shared_ptr<Process>& trial, Seconds deadline,
                             const std::function<void(const Result<>&)>& then) {
  const bool isRunning = trial->isRunning();
  if (isRunning && platform.clock.awakeTime() < deadline) {
    return platform.dispatch.mainQueue().asyncAfter(
        commandPollInterval,
        [self = shared_from_this(), trial, deadline, then] { self->awaitTrial(trial, deadline, then); });
  }
  if (isRunning) {
    trial->terminateGroup();
    return then(Failure{commandTimedOut});
  }
  const int status = trial->terminationStatus();
  if (status == 0) return then(Done{});
  const std::string text = commandText(trial->readOutput(Seconds{0}));
  then(Failure{text.empty() ? "程式以狀態 " + std::to_string(status) + " 結束。" : text});
}

std::string AppDelegate::shellEscape(std::string_view text) {
  return "'" + replacingAll(text, "'", "'\"'\"'") + "'";
}

}  // namespace kestrune
