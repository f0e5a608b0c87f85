#include "platform/posix/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iterator>

#include "platform/posix/AccessList.h"
#include "platform/posix/FileDescriptor.h"

namespace kestrune {

namespace fs = std::filesystem;

namespace {

constexpr int linkLimit = 40;                             // as many as the kernel follows
constexpr std::size_t sizeLimit = std::size_t{64} << 20;  // bytes

std::error_code lastError() {
  return {errno, std::system_category()};
}

/// The file that `path` means, whether it exists or not, with links followed.
std::error_code followLinks(fs::path& path) {
  for (int followed = 0; followed <= linkLimit; ++followed) {
    std::error_code failure;
    const fs::path target = fs::read_symlink(path, failure);
    if (failure) return {};
    path = target.is_absolute() ? target : path.parent_path() / target;
  }
  return {ELOOP, std::system_category()};
}

bool isNowhere(const fs::path& file) {
  struct stat it {};
  struct stat nowhere {};
  return stat(file.c_str(), &it) == 0 && stat("/dev/null", &nowhere) == 0 && it.st_dev == nowhere.st_dev &&
         it.st_ino == nowhere.st_ino;
}

std::error_code writeAll(int descriptor, std::string_view contents) {
  while (!contents.empty()) {
    const ssize_t written = write(descriptor, contents.data(), contents.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return lastError();
    contents.remove_prefix(static_cast<std::size_t>(written));
  }
  return fsync(descriptor) == 0 ? std::error_code() : lastError();
}

fs::path folderOf(const fs::path& file) {
  return file.has_parent_path() ? file.parent_path() : fs::path(".");
}

/// A new name is durable only once its folder is. There is nothing to be done about one that cannot be
/// flushed: the name is there.
void flushFolder(const fs::path& folder) {
  const FileDescriptor descriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (descriptor) fsync(descriptor.get());
}

bool isTaken(const fs::path& name) {
  std::error_code failure;
  return fs::exists(fs::symlink_status(name, failure));
}

/// The name of `file` with `ending` behind it, and a number where that is taken, unless it will do all the
/// same.
fs::path freeName(const fs::path& file, const std::string& ending,
                  const std::function<bool(const fs::path&)>& willDo = {}) {
  fs::path name = file.string() + ending;
  for (int number = 2; isTaken(name) && !(willDo && willDo(name)); ++number) {
    name = file.string() + ending + "-" + std::to_string(number);
  }
  return name;
}

}  // namespace

std::error_code readWholeFile(const std::string& path, std::string& contents) {
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) return lastError();
  struct stat state {};
  if (fstat(file.get(), &state) != 0) return lastError();
  if (S_ISDIR(state.st_mode)) return {EISDIR, std::system_category()};
  if (!S_ISREG(state.st_mode)) return {EINVAL, std::system_category()};
  std::string bytes;
  char buffer[16384];
  for (;;) {
    const ssize_t count = read(file.get(), buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return lastError();
    if (count == 0) break;
    if (bytes.size() + static_cast<std::size_t>(count) > sizeLimit) return {EFBIG, std::system_category()};
    bytes.append(buffer, static_cast<std::size_t>(count));
  }
  contents = std::move(bytes);
  return {};
}

std::error_code writeFileAtomically(const std::string& path, std::string_view contents) {
  fs::path target(path);
  if (const auto failure = followLinks(target)) return failure;
  if (isNowhere(target)) target = path;
  const fs::path folder = folderOf(target);

  std::string temporary = folder / ("." + target.filename().string() + ".XXXXXX");
  const FileDescriptor file(mkostemp(temporary.data(), O_CLOEXEC));  // made with mode 0600
  if (!file) return lastError();

  const auto fill = [&]() -> std::error_code {
    // A link is still there only if it leads to nowhere.
    if (struct stat old{}; lstat(target.c_str(), &old) == 0 && !S_ISLNK(old.st_mode)) {
      if (S_ISDIR(old.st_mode)) return {EISDIR, std::system_category()};
      if (!S_ISREG(old.st_mode)) return {EINVAL, std::system_category()};
      // The owner first: giving a file away clears bits of its mode.
      const bool given =
          fchown(file.get(), old.st_uid, old.st_gid) == 0 || fchown(file.get(), uid_t(-1), old.st_gid) == 0;
      const mode_t mode = (old.st_mode & 07777) | S_IRUSR;
      // With an access list, the bits for the group only limit it: without it they would be the group's own.
      const bool shared = given && fchmod(file.get(), mode) == 0 && copyAccessList(target, file.get());
      if (!shared && fchmod(file.get(), mode & ~mode_t{077}) != 0) return lastError();
    }
    if (const auto failure = writeAll(file.get(), contents)) return failure;
    return rename(temporary.c_str(), target.c_str()) == 0 ? std::error_code() : lastError();
  };
  if (const auto failure = fill()) {
    unlink(temporary.c_str());
    return failure;
  }
  flushFolder(folder);
  return {};
}

std::error_code keepDamagedFile(const std::string& path) {
  fs::path target(path);
  if (const auto failure = followLinks(target)) return failure;
  std::error_code failure;
  fs::rename(target, freeName(target, ".damaged"), failure);
  return failure;
}

bool isPassing(const std::error_code& failure) {
  // The last ones are those of a disk in the network.
  static constexpr int passing[] = {EMFILE,   ENFILE,    ENOMEM,    EIO,         ESTALE,
                                    ENOTCONN, ETIMEDOUT, EHOSTDOWN, EHOSTUNREACH};
  return std::any_of(std::begin(passing), std::end(passing),
                     [&](int error) { return failure == std::error_code(error, std::system_category()); });
}

std::error_code keepUnreadableFile(const std::string& path) {
  fs::path target(path);
  if (const auto failure = followLinks(target)) return failure;
  struct stat state {};
  if (lstat(target.c_str(), &state) != 0) return lastError();
  if (!S_ISREG(state.st_mode)) return {};
  const auto isThisOne = [&state](const fs::path& name) {
    struct stat other {};
    return lstat(name.c_str(), &other) == 0 && other.st_dev == state.st_dev && other.st_ino == state.st_ino;
  };
  std::string bytes;
  const std::error_code unreadable = readWholeFile(target, bytes);
  if (isPassing(unreadable)) return unreadable;
  const fs::path name = freeName(target, ".unreadable", isThisOne);
  if (isThisOne(name)) return {};
  if (link(target.c_str(), name.c_str()) != 0) {
    // Not every disk has second names. What can be read, if only as bytes, is copied.
    if (!unreadable) return writeFileAtomically(name, bytes);
    if (rename(target.c_str(), name.c_str()) != 0) return lastError();
  }
  flushFolder(folderOf(name));
  return {};
}

std::error_code makeFolders(const std::string& path, mode_t mode) {
  std::error_code failure;
  if (fs::is_directory(path, failure)) return {};
  if (const fs::path parent = fs::path(path).parent_path(); !parent.empty() && parent != path) {
    if (const auto above = makeFolders(parent, mode)) return above;
  }
  if (mkdir(path.c_str(), mode) == 0) return {};
  const std::error_code problem = lastError();
  // Another process may have made it just now; anything else that is there is in the way.
  if (fs::is_directory(path, failure)) return {};
  return problem == std::errc::file_exists ? std::make_error_code(std::errc::not_a_directory) : problem;
}

}  // namespace kestrune
