#pragma once

#include <sys/types.h>

#include <string>
#include <system_error>
#include <utility>

#include "ports/FileManager.h"

namespace kestrune {

/// The files of this machine. Except for `createDirectory`, a failure changes nothing. Any thread.
class SystemFileManager final : public FileManager {
 public:
  explicit SystemFileManager(std::string givenHome) : home(std::move(givenHome)) {}

  bool fileExists(const std::string& path) const override;
  FileContents contents(const std::string& path) const override;
  /// If fchown refuses the old owner, this user owns the new file. The owner always gets read permission. A
  /// symbolic link to /dev/null is replaced, not followed. Fails for a device and for a FIFO.
  Result<> writeAtomically(const std::string& path, const std::string& contents) override;
  Result<> writePrivately(const std::string& path, const std::string& contents) override;
  /// Keeps the old file by a hard link. If the link fails, swaps the old and the new file (RENAME_EXCHANGE).
  /// If the swap fails too, nothing changes. If the name with ".unreadable" exists, adds a number to it.
  Result<> replaceUnreadable(const std::string& path, const std::string& contents) override;
  Result<> createDirectory(const std::string& path) override;
  Result<> removeItem(const std::string& path) override;
  std::string homeDirectoryPath() const override { return home; }

 private:
  const std::string home;
};

/// Creates the folder `path` and its parents with `mode`, less the umask. Succeeds if the folder exists. Any
/// thread.
std::error_code makeFolders(const std::string& path, mode_t mode = 0700);

}  // namespace kestrune
