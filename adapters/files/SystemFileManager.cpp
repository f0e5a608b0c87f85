#include "adapters/files/SystemFileManager.h"

#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "adapters/files/Files.h"
#include "adapters/system/Errors.h"

namespace kestrune {

namespace {

Result<> resultOf(const std::error_code& failure) {
  if (failure) return Failure{failure.message()};
  return Done{};
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
