#include "host/Diagnosis.h"

#include <optional>

#include "KestruneMenuClient/status/StatusSnapshot.h"
#include "adapters/system/System.h"
#include "host/SessionScript.h"
#include "text/Text.h"

namespace kestrune {

std::string describeClient(EventLoop& loop, Rendezvous& rendezvous) {
  const auto process = rendezvous.runningClient();
  if (!process) return "Running client: none\n";
  std::string arguments;  // each ends in a NUL, which `withoutControls` replaces by a space
  readWholeFile("/proc/" + std::to_string(*process) + "/cmdline", arguments);
  using namespace std::string_literals;
  const bool inTerminal = arguments.find("\0--terminal\0"s) != std::string::npos;
  std::optional<std::string> status;  // empty if no client answers
  const auto subscription =
      rendezvous.subscribe([&status](const std::string& line) { status = line; }, [&status] { status = ""; });
  loop.runUntil([&status] { return status.has_value(); });
  const auto told = parseStatusJson(status.value_or(""));
  return "Running client: process " + std::to_string(*process) + ", in the " +
         (inTerminal ? "terminal" : "tray") + ": " + std::string(trimmed(withoutControls(arguments))) + "\n" +
         (told ? std::string("  lamp: ") + std::string(menuIcon(told->lamp)) +
                     (told->keepsAwake ? ", keeps the machine awake" : ", does not keep the machine awake") +
                     "\n"
               : "  does not answer, or has another version\n");
}

std::string describeSession(Processes& processes, const std::string& windows) {
  const auto launched = processes.launch("/bin/bash", {"-c", sessionScript, "bash", windows});
  if (!launched) return "Session: unknown: cannot run bash: " + launched.reason() + "\n";
  const std::string text = (*launched)->readOutput(Seconds{30.0});
  (*launched)->terminateGroup();
  // Remove control characters: answers of other processes may contain some, and a terminal would obey them.
  std::string plain;
  for (const auto& line : split(text, '\n')) plain += withoutControls(line) + "\n";
  return plain;
}

}  // namespace kestrune
