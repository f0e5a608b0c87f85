#include "adapters/system/WholeFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "adapters/system/Errors.h"
#include "adapters/system/FileDescriptor.h"
#include "ports/FileManager.h"

namespace kestrune {

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
