#include "adapters/children/CurlLocalService.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "adapters/system/System.h"

namespace kestrune {

constexpr Seconds grace{1.0};          // curl gets SIGTERM if it still runs this long after --max-time
constexpr Seconds pollInterval{0.01};  // between two checks whether curl has exited
constexpr auto address = "http://127.0.0.1:8765/desktop/projects";

/// Reports why curl could not be asked, unless the client is ending. Returns an absent answer.
static std::nullopt_t notAsked(const std::string& failed, const std::string& reason) {
  // Do not report ECANCELED: a launch fails with this error because the client is ending.
  if (reason != describe(ECANCELED))
    reportOnce("cannot " + failed + ": " + reason + "; the menu shows no project and no thread");
  return std::nullopt;
}

std::optional<std::string> CurlLocalService::getProjects(const std::string& token) {
  // A header line must not contain control characters.
  if (std::ranges::any_of(token, [](unsigned char each) { return each < ' ' || each == 0x7F; }))
    return std::nullopt;
  const std::string line = "Authorization: Bearer " + token + "\n";
  const FileDescriptor header(memfd_create("header", MFD_CLOEXEC));
  if (!header || pwrite(header.get(), line.data(), line.size(), 0) != static_cast<ssize_t>(line.size()))
    return notAsked("create a memfd for curl", describe(errno));
  std::string maxTime = std::to_string(limit.count());
  maxTime.resize(maxTime.size() - 3);  // three decimals are left: curl 8.14 misreads a number with more
  // -q makes curl ignore the user's .curlrc. --noproxy "*" makes curl connect without a proxy.
  const auto launched = children.launch(
      "curl", {"-q", "--silent", "--max-time", maxTime, "--noproxy", "*", "--header", "@-", address},
      header.get());
  if (!launched) return notAsked("run curl", launched.reason());
  Process& child = **launched;
  const Seconds deadline = clock.awakeTime() + limit + grace;
  std::string answer = child.readOutput(limit + grace);
  while (child.isRunning() && clock.awakeTime() < deadline) clock.sleep(pollInterval);
  if (!child.isRunning() && child.terminationStatus() == 0) return answer;
  child.terminate();  // does nothing if curl has ended
  return std::nullopt;
}

}  // namespace kestrune
