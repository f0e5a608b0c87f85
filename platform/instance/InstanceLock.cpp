#include "platform/instance/InstanceLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/instance/InstanceFolders.h"

namespace kestrune {

namespace {

constexpr auto lockName = "/lock";
/// Names the descriptor of a lock that was passed on.
constexpr auto passedOnVariable = "KESTRUNE_MENU_CLIENT_LOCK";

bool isFileAt(const FileDescriptor& file, const std::string& path) {
  struct stat ours {
  }, there{};
  return fstat(file.get(), &ours) == 0 && lstat(path.c_str(), &there) == 0 && ours.st_dev == there.st_dev &&
         ours.st_ino == there.st_ino;
}

}  // namespace

InstanceLock::InstanceLock() {
  const char* const number = std::getenv(passedOnVariable);
  if (number == nullptr) return;
  int descriptor = -1;
  std::from_chars(number, number + std::strlen(number), descriptor);
  if (descriptor > STDERR_FILENO && fcntl(descriptor, F_SETFD, FD_CLOEXEC) == 0) file.reset(descriptor);
  unsetenv(passedOnVariable);
}

InstanceLock::Result InstanceLock::take(const std::string& folder) {
  const std::string path = folder + lockName;
  problem = makeInstanceFolder(folder);
  if (problem) return Result::failed;
  // A lock belongs to the description that was locked: one that was passed on is not seen by another.
  if (!isFileAt(file, path)) {
    FileDescriptor opened(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    if (opened && flock(opened.get(), LOCK_EX | LOCK_NB) == 0) {
      file = std::move(opened);
    } else {
      problem = lastSystemError();
    }
  } else if (flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
    problem = lastSystemError();
  }
  if (!problem) place = folder;
  if (problem == std::errc::operation_would_block) return Result::held;
  return problem ? Result::failed : Result::taken;
}

bool InstanceLock::isInPlace() const {
  return !place.empty() && isFileAt(file, place + lockName);
}

void InstanceLock::passOn() const {
  if (!file || fcntl(file.get(), F_SETFD, 0) != 0) return;
  setenv(passedOnVariable, std::to_string(file.get()).c_str(), 1);
}

}  // namespace kestrune
