#include "adapters/terminal/TerminalOutput.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace kestrune {

namespace {

constexpr std::size_t pendingLimit = std::size_t{1} << 20;  // bytes

FileDescriptor openAgain(int descriptor) {
  struct stat state {};
  if (fstat(descriptor, &state) != 0) return {};
  // Not to block is a property of an open file, which this process may share with others. A pipe or a
  // terminal can be opened once more; a regular file never blocks, and a second opening would write over what
  // is there.
  if (S_ISFIFO(state.st_mode) || S_ISCHR(state.st_mode)) {
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
    FileDescriptor own(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (own) return own;
  }
  return FileDescriptor(fcntl(descriptor, F_DUPFD_CLOEXEC, 3));
}

}  // namespace

TerminalOutput::TerminalOutput(EventLoop& loop, int descriptor)
    : terminal(isatty(descriptor) == 1),
      screen(terminal ? fcntl(descriptor, F_DUPFD_CLOEXEC, 3) : -1),
      writer(loop, openAgain(descriptor), pendingLimit) {}

winsize TerminalOutput::size() const {
  winsize size{};
  if (screen) ioctl(screen.get(), TIOCGWINSZ, &size);
  return size;
}

}  // namespace kestrune
