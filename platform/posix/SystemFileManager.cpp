#include "platform/posix/SystemFileManager.h"

#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "platform/posix/Files.h"

namespace kestrune {

namespace {

std::optional<std::string> description(const std::error_code& failure) {
  return failure ? std::optional(failure.message()) : std::nullopt;
}

}  // namespace

SystemFileManager::SystemFileManager(std::string givenHome) : home(std::move(givenHome)) {}

bool SystemFileManager::fileExists(const std::string& path) const {
  return access(path.c_str(), F_OK) == 0;
}

std::optional<std::string> SystemFileManager::contents(const std::string& path) const {
  std::string bytes;
  if (readWholeFile(path, bytes)) return std::nullopt;
  return bytes;
}

std::optional<std::string> SystemFileManager::writeAtomically(const std::string& path,
                                                              const std::string& contents) {
  return description(writeFileAtomically(path, contents));
}

std::optional<std::string> SystemFileManager::keepUnreadable(const std::string& path) {
  return description(keepUnreadableFile(path));
}

std::optional<std::string> SystemFileManager::createDirectory(const std::string& path) {
  return description(makeFolders(path, 0777));
}

std::optional<std::string> SystemFileManager::removeItem(const std::string& path) {
  if (unlink(path.c_str()) == 0) return std::nullopt;
  return std::error_code(errno, std::system_category()).message();
}

}  // namespace kestrune
