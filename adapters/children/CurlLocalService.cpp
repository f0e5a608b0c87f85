#include "adapters/children/CurlLocalService.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "adapters/system/Errors.h"
#include "adapters/system/FileDescriptor.h"

namespace kestrune {

namespace {

constexpr Seconds grace{1.0};          // curl gets SIGTERM if it still runs this long after --max-time
constexpr Seconds pollInterval{0.01};  // between two checks whether curl has exited
constexpr auto address = "http://127.0.0.1:8765/desktop/projects";

/// Returns whether `token` has no control characters, so that it may be part of an HTTP header line.
bool canStandInHeader(const std::string& token) {
  return std::none_of(token.begin(), token.end(),
                      [](unsigned char each) { return each < ' ' || each == 0x7F; });
}

/// Returns a memfd (a file in memory) with `text`, to be read from its start; an empty descriptor on failure.
FileDescriptor fileInMemory(const std::string& text) {
  FileDescriptor file(memfd_create("header", MFD_CLOEXEC));
  if (file && pwrite(file.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
    file.reset();
  return file;
}

/// Returns the seconds with three decimals: curl 8.14 misreads a number with more decimals.
std::string withMilliseconds(Seconds limit) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", limit.count());
  return text;
}

void reportNotAsked(const std::string& failed, const std::string& reason) {
  // Do not report ECANCELED: a launch fails with this error because the client is ending.
  if (reason != describe(ECANCELED))
    reportOnce("cannot " + failed + ": " + reason + "; the menu shows no project and no thread");
}

}  // namespace

std::optional<std::string> CurlLocalService::getProjects(const std::string& token) {
  if (!canStandInHeader(token)) return std::nullopt;
  const FileDescriptor header = fileInMemory("Authorization: Bearer " + token + "\n");
  if (!header) {
    reportNotAsked("create a memfd for curl", describe(errno));
    return std::nullopt;
  }
  // -q makes curl ignore the user's .curlrc. --noproxy "*" makes curl connect without a proxy.
  const auto launched = children.launch(
      "curl",
      {"-q", "--silent", "--max-time", withMilliseconds(limit), "--noproxy", "*", "--header", "@-", address},
      header.get());
  if (!launched) {
    reportNotAsked("run curl", launched.reason());
    return std::nullopt;
  }
  Process& child = **launched;
  const Seconds deadline = clock.awakeTime() + limit + grace;
  std::string answer = child.readOutput(limit + grace);
  while (child.isRunning() && clock.awakeTime() < deadline) clock.sleep(pollInterval);
  if (child.isRunning()) {
    child.terminate();
    return std::nullopt;
  }
  return child.terminationStatus() == 0 ? std::optional(std::move(answer)) : std::nullopt;
}

}  // namespace kestrune
