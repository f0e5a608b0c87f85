#include "adapters/files/SystemFileManager.h"

#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "adapters/files/Files.h"

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

FileContents SystemFileManager::contents(const std::string& path) const {
  std::string bytes;
  const std::error_code failure = readWholeFile(path, bytes);
  if (!failure) return {ReadOutcome::read, std::move(bytes)};
  const ReadOutcome outcome = failure == std::errc::file_too_large ? ReadOutcome::tooLarge
                              : isPassing(failure)                 ? ReadOutcome::passing
                                                                   : ReadOutcome::unreadable;
  return {outcome, {}, failure.message()};
}

std::optional<std::string> SystemFileManager::writeAtomically(const std::string& path,
                                                              const std::string& contents) {
  return description(writeFileAtomically(path, contents));
}

std::optional<std::string> SystemFileManager::writePrivately(const std::string& path,
                                                             const std::string& contents) {
  return description(writePrivateFile(path, contents));
}

std::optional<std::string> SystemFileManager::replaceUnreadable(const std::string& path,
                                                                const std::string& contents) {
  return description(replaceUnreadableFile(path, contents));
}

std::optional<std::string> SystemFileManager::createDirectory(const std::string& path) {
  return description(makeFolders(path, 0777));
}

std::optional<std::string> SystemFileManager::removeItem(const std::string& path) {
  if (unlink(path.c_str()) == 0) return std::nullopt;
  return std::error_code(errno, std::system_category()).message();
}

}  // namespace kestrune
