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
  /// The new file gets the owner of the old file. If fchown(2) fails, the user of this process owns it. The
  /// owner always gets read permission. Follows symbolic links, but replaces a link to /dev/null. Fails if
  /// `path` is a folder, a device or a FIFO.
  Result<> writeAtomically(const std::string& path, const std::string& contents) override;
  Result<> writePrivately(const std::string& path, const std::string& contents) override;
  /// Keeps the old file as FILE.unreadable, or as FILE.unreadable-2 and so on if this name exists. Makes a
  /// hard link for that. If link(2) fails, copies the old file. If the old file cannot be read either, swaps
  /// the old and the new file (RENAME_EXCHANGE). If the swap fails too, nothing changes.
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
