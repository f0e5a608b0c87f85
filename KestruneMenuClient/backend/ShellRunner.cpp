#include "KestruneMenuClient/backend/ShellRunner.h"

#include <utility>

#include "text/Text.h"

namespace kestrune {

namespace {

constexpr Seconds graceAfterTerminate{0.2};
// How long to read output after the shell has ended: a service that the shell started may keep a pipe open.
constexpr Seconds pipePatience{1.0};

constexpr auto noOutput = "沒有輸出。";

}  // namespace

CommandResult runShellCommand(Processes& processes, Clock& clock, const std::string& commandLine,
                              Seconds timeout) {
  const auto launched = processes.launch("/bin/bash", {"-lc", commandLine});
  if (!launched) return {false, launched.reason()};
  Process& child = **launched;

  const Seconds deadline = clock.awakeTime() + timeout;
  while (child.isRunning() && clock.awakeTime() < deadline) clock.sleep(commandPollInterval);

  const bool timedOut = child.isRunning();
  if (timedOut) {
    child.terminate();
    clock.sleep(graceAfterTerminate);
    if (child.isRunning()) child.interrupt();
    // Also end the shell's children: otherwise each refresh that times out would leave processes behind.
    child.terminateGroup();
  }

  std::string text = commandText(child.readOutput(timedOut ? Seconds{0} : pipePatience));
  if (timedOut) return {false, text.empty() ? commandTimedOut : text + "\n" + commandTimedOut};
  return {child.terminationStatus() == 0, text.empty() ? noOutput : std::move(text)};
}

std::string commandText(const std::string& bytes) {
  return std::string(isValidUtf8(bytes) ? trimmed(bytes) : std::string_view());
}

}  // namespace kestrune
