#include "KestruneMenuClient/backend/ShellRunner.h"

#include <utility>

#include "text/Text.h"

namespace kestrune {

namespace {

constexpr Seconds graceAfterTerminate{0.2};
// How long to read after the end of the shell: a service that it started may keep a pipe open for ever.
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
    // End the shell's children, too: otherwise more of them would be left with each refresh.
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
