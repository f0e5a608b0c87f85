#include "adapters/system/Errors.h"

#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>
#include <set>

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

}  // namespace kestrune
