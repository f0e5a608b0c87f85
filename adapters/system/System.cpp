#include "adapters/system/System.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include <cstdio>
#include <mutex>
#include <set>
#include <utility>

#include "ports/FileManager.h"

namespace kestrune {

void reportOnce(const std::string& message) {
  static std::mutex mutex;
  static std::set<std::string> said;
  const std::lock_guard lock(mutex);
  // Drop the message if printing would block. For example, after Ctrl+S, a write to a terminal blocks until
  // the user presses Ctrl+Q.
  pollfd output{STDERR_FILENO, POLLOUT, 0};
  if (poll(&output, 1, 0) == 0) return;
  if (said.insert(message).second) std::fprintf(stderr, "KestruneMenuClient: %s\n", message.c_str());
}

std::error_code readWholeFile(const std::string& path, std::string& contents) {
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat state {};
  if (!file || fstat(file.get(), &state) != 0) return systemError(errno);
  if (!S_ISREG(state.st_mode)) return systemError(S_ISDIR(state.st_mode) ? EISDIR : EINVAL);
  std::string bytes;
  char buffer[16384];
  for (;;) {
    const ssize_t count = read(file.get(), buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return systemError(errno);
    if (count == 0) break;
    if (bytes.size() + static_cast<std::size_t>(count) > FileManager::sizeLimit) return systemError(EFBIG);
    bytes.append(buffer, static_cast<std::size_t>(count));
  }
  contents = std::move(bytes);
  return {};
}

}  // namespace kestrune
