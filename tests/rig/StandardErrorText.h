#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "adapters/system/System.h"

namespace kestrune::testing {

/// Redirects standard error into a memfd (a file in memory). The destructor restores standard error.
class StandardErrorText {
 public:
  StandardErrorText()
      : before(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 10)), collected(memfd_create("errors", MFD_CLOEXEC)) {
    dup2(collected.get(), STDERR_FILENO);
  }
  ~StandardErrorText() { dup2(before.get(), STDERR_FILENO); }
  StandardErrorText(const StandardErrorText&) = delete;
  StandardErrorText& operator=(const StandardErrorText&) = delete;

  std::string text() const {
    std::string all;
    char buffer[4096];
    for (ssize_t count;
         (count = pread(collected.get(), buffer, sizeof buffer, static_cast<off_t>(all.size()))) > 0;)
      all.append(buffer, static_cast<std::size_t>(count));
    return all;
  }

 private:
  const FileDescriptor before;
  const FileDescriptor collected;
};

}  // namespace kestrune::testing
