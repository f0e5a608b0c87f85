#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <string>
#include <system_error>
#include <utility>

#include "ports/FileManager.h"

namespace kestrune {

/// Creates the folder `path` and its parents with `mode`, less the umask. Succeeds if the folder exists. Any
/// thread.
std::error_code makeFolders(const std::string& path, mode_t mode = 0700);

/// The files of this machine. A call that fails leaves the existing files unchanged. Any thread.
class SystemFileManager final : public FileManager {
 public:
  explicit SystemFileManager(std::string givenHome) : home(std::move(givenHome)) {}

  bool fileExists(const std::string& path) const override { return access(path.c_str(), F_OK) == 0; }
  FileContents contents(const std::string& path) const override;
  /// The new file gets the owner, mode and ACL of the old file; S_IRUSR is added to the mode. If fchown(2)
  /// fails, the user of this process owns the new file. Follows a symbolic link, but a link to /dev/null is
  /// itself replaced. Fails if `path` is a folder, a device or a FIFO.
  Result<> writeAtomically(const std::string& path, const std::string& contents) override;
  Result<> writePrivately(const std::string& path, const std::string& contents) override;
  /// Keeps the old file as FILE.unreadable; if this name exists, as FILE.unreadable-2 and so on.
  Result<std::string> replaceUnreadable(const std::string& path, const std::string& contents) override;
  Result<> createDirectory(const std::string& path) override {
    if (const auto failure = makeFolders(path, 0777)) return Failure{failure.message()};
    return Done{};
  }
  void removeItem(const std::string& path) override { unlink(path.c_str()); }
  std::string homeDirectoryPath() const override { return home; }

 private:
  const std::string home;
};

}  // namespace kestrune
