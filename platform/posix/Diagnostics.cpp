#include "platform/posix/Diagnostics.h"

#include <cstdio>
#include <mutex>
#include <set>

namespace kestrune {

void reportOnce(const std::string& message) {
  static std::mutex mutex;
  static std::set<std::string> said;
  const std::lock_guard lock(mutex);
  if (said.insert(message).second) std::fprintf(stderr, "KestruneMenuClient: %s\n", message.c_str());
}

}  // namespace kestrune
