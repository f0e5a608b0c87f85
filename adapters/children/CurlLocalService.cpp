#include "adapters/children/CurlLocalService.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "adapters/children/Spawn.h"
#include "adapters/system/Errors.h"
#include "adapters/system/FileDescriptor.h"
#include "adapters/system/StandardError.h"

namespace kestrune {

namespace {

constexpr Seconds grace{1.0};          // how long curl may exceed --max-time
constexpr Seconds pollInterval{0.01};  // between two checks for its exit, after its output ended
constexpr auto address = "http://127.0.0.1:8765/desktop/projects";

/// Whether the token is valid in an HTTP header line: it has no control character.
bool canStandInHeader(const std::string& token) {
  return std::none_of(token.begin(), token.end(), [](char each) {
    const auto byte = static_cast<unsigned char>(each);
    return byte < 0x20 || byte == 0x7F;
  });
}

/// A memfd that contains `text`, with the offset at its start; empty when memory is short.
FileDescriptor fileInMemory(const std::string& text) {
  FileDescriptor file(memfd_create("header", MFD_CLOEXEC));
  const auto size = static_cast<ssize_t>(text.size());
  if (file && (write(file.get(), text.data(), text.size()) != size || lseek(file.get(), 0, SEEK_SET) != 0)) {
    file.reset();
  }
  return file;
}

/// Seconds with three decimals: curl 8.14 misreads a number with more.
std::string withMilliseconds(Seconds limit) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", limit.count());
  return text;
}

}  // namespace

std::optional<std::string> CurlLocalService::getProjects(const std::string& token) {
  if (!canStandInHeader(token)) return std::nullopt;
  const FileDescriptor header = fileInMemory("Authorization: Bearer " + token + "\n");
  if (!header) return std::nullopt;
  // -q ignores the user's .curlrc, --noproxy every proxy.
  const auto launched = children.launch(
      "curl",
      {"-q", "--silent", "--max-time", withMilliseconds(limit), "--noproxy", "*", "--header", "@-", address},
      header.get());
  if (!launched) {
    // ECANCELED only means that the client is ending and has reserved all launches.
    if (launched.reason() != describe(ECANCELED))
      reportOnce("cannot run curl: " + launched.reason() + "; the menu shows no project and no thread");
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
