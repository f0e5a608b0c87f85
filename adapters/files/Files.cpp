#include "adapters/files/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iterator>

#include "adapters/files/NewFile.h"
#include "adapters/system/Errors.h"
#include "adapters/system/FileDescriptor.h"
#include "adapters/system/WholeFile.h"

namespace kestrune {

namespace fs = std::filesystem;

namespace {

constexpr int linkLimit = 40;  // MAXSYMLINKS of the kernel

/// If `path` is a symbolic link, replaces `path` by the final target, which may be missing (dangling link).
std::error_code followLinks(fs::path& path) {
  for (int followed = 0; followed <= linkLimit; ++followed) {
    std::error_code failure;
    const fs::path target = fs::read_symlink(path, failure);
    if (failure) return {};
    path = target.is_absolute() ? target : path.parent_path() / target;
  }
  return systemError(ELOOP);
}

Result<> resultOf(const std::error_code& failure) {
  if (failure) return Failure{failure.message()};
  return Done{};
}

bool isNowhere(const fs::path& file) {
  struct stat it {};
  struct stat nowhere {};
  return stat(file.c_str(), &it) == 0 && stat("/dev/null", &nowhere) == 0 && it.st_dev == nowhere.st_dev &&
         it.st_ino == nowhere.st_ino;
}

bool isTaken(const fs::path& name) {
  std::error_code failure;
  return fs::exists(fs::symlink_status(name, failure));
}

/// Returns `file` with `ending` appended. If that name exists, appends a number too, unless `willDo` accepts
/// the existing file.
fs::path freeName(const fs::path& file, const std::string& ending,
                  const std::function<bool(const fs::path&)>& willDo = {}) {
  fs::path name = file.string() + ending;
  for (int number = 2; isTaken(name) && !(willDo && willDo(name)); ++number) {
    name = file.string() + ending + "-" + std::to_string(number);
  }
  return name;
}

}  // namespace

std::error_code writeFileAtomically(const std::string& path, std::string_view contents) {
  fs::path target(path);
  if (const auto failure = followLinks(target)) return failure;
  if (isNowhere(target)) target = path;
  NewFile file(target);
  if (const auto failure = file.keepAccess()) return failure;
  if (const auto failure = file.write(contents)) return failure;
  return file.replaceTarget();
}

std::error_code writePrivateFile(const std::string& path, std::string_view contents) {
  NewFile file(path);
  if (const auto failure = file.write(contents)) return failure;
  return file.replaceTarget();
}

std::error_code keepDamagedFile(const std::string& path) {
  fs::path target(path);
  if (const auto failure = followLinks(target)) return failure;
  std::error_code failure;
  fs::rename(target, freeName(target, ".damaged"), failure);
  return failure;
}

bool isPassing(const std::error_code& failure) {
  // The last five are errors of network file systems.
  static constexpr int passing[] = {EMFILE,   ENFILE,    ENOMEM,    EIO,         ESTALE,
                                    ENOTCONN, ETIMEDOUT, EHOSTDOWN, EHOSTUNREACH};
  return std::any_of(std::begin(passing), std::end(passing),
                     [&](int error) { return failure == systemError(error); });
}

std::error_code replaceUnreadableFile(const std::string& path, std::string_view contents) {
  fs::path target(path);
  if (const auto failure = followLinks(target)) return failure;
  struct stat state {};
  if (lstat(target.c_str(), &state) != 0 || !S_ISREG(state.st_mode))
    return writeFileAtomically(path, contents);
  const auto isThisOne = [&state](const fs::path& name) {
    struct stat other {};
    return lstat(name.c_str(), &other) == 0 && other.st_dev == state.st_dev && other.st_ino == state.st_ino;
  };
  NewFile file(target);
  if (const auto failure = file.keepAccess()) return failure;
  if (const auto failure = file.write(contents)) return failure;
  const fs::path kept = freeName(target, ".unreadable", isThisOne);
  if (isThisOne(kept) || link(target.c_str(), kept.c_str()) == 0) return file.replaceTarget();

  // The hard link has failed: the file system has none, or the kernel refuses one to another user's file (if
  // fs.protected_hardlinks is set). Keep a copy instead.
  const std::error_code unlinkable = lastError();
  std::string bytes;
  const std::error_code unreadable = readWholeFile(target, bytes);
  if (!unreadable) {
    if (const auto failure = writePrivateFile(kept, bytes)) return failure;
    return file.replaceTarget();
  }
  if (unreadable != std::errc::permission_denied) return unreadable;
  return file.replaceTargetKeeping(kept) ? unlinkable : std::error_code();
}

std::error_code makeFolders(const std::string& path, mode_t mode) {
  std::error_code failure;
  if (fs::is_directory(path, failure)) return {};
  if (const fs::path parent = fs::path(path).parent_path(); !parent.empty() && parent != path) {
    if (const auto above = makeFolders(parent, mode)) return above;
  }
  if (mkdir(path.c_str(), mode) == 0) return {};
  const std::error_code problem = lastError();
  // Another process may have created the folder just now. If there is a file that is not a folder, fail.
  if (fs::is_directory(path, failure)) return {};
  return problem == std::errc::file_exists ? std::make_error_code(std::errc::not_a_directory) : problem;
}

bool SystemFileManager::fileExists(const std::string& path) const {
  return access(path.c_str(), F_OK) == 0;
}

FileContents SystemFileManager::contents(const std::string& path) const {
  std::string bytes;
  const std::error_code failure = readWholeFile(path, bytes);
  if (!failure) return {ReadOutcome::read, std::move(bytes)};
  const ReadOutcome outcome = failure == std::errc::file_too_large ? ReadOutcome::tooLarge
                              : isPassing(failure)                 ? ReadOutcome::passing
                                                                   : ReadOutcome::unreadable;
  return {outcome, {}, failure.message()};
}

Result<> SystemFileManager::writeAtomically(const std::string& path, const std::string& contents) {
  return resultOf(writeFileAtomically(path, contents));
}

Result<> SystemFileManager::writePrivately(const std::string& path, const std::string& contents) {
  return resultOf(writePrivateFile(path, contents));
}

Result<> SystemFileManager::replaceUnreadable(const std::string& path, const std::string& contents) {
  return resultOf(replaceUnreadableFile(path, contents));
}

Result<> SystemFileManager::createDirectory(const std::string& path) {
  return resultOf(makeFolders(path, 0777));
}

Result<> SystemFileManager::removeItem(const std::string& path) {
  return resultOf(unlink(path.c_str()) == 0 ? std::error_code() : lastError());
}

}  // namespace kestrune
