#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "ports/FileManager.h"

namespace kestrune {

/// Replaces the file at `path` atomically and durably: after a power cut, there is either the old file or the
/// new one. An existing file keeps its mode, with read permission added for its owner, and it keeps its owner
/// if this user may set it. A new file has mode 0600. If `path` is a symbolic link, the link stays and its
/// target is replaced; only a link to /dev/null is replaced itself. Any thread.
std::error_code writeFileAtomically(const std::string& path, std::string_view contents);

/// Replaces the file or symbolic link at `path` with a file of mode 0600, atomically and durably. Any thread.
std::error_code writePrivateFile(const std::string& path, std::string_view contents);

/// Renames the file at `path`, or the target of a symbolic link at `path`: appends ".damaged" to its name,
/// and a number if that name exists. Any thread.
std::error_code keepDamagedFile(const std::string& path);

/// Returns whether `failure` is temporary, such as EMFILE or ESTALE: the file itself may be in order.
bool isPassing(const std::error_code& failure);

/// Replaces an unreadable file like `writeFileAtomically`, and keeps the old file: its name gets
/// ".unreadable" appended, and a number if that name exists. At any time, `path` names the old file or the
/// new one. The old file is kept by a hard link. If the link fails, the old file is copied. If the user may
/// not read it, the old file and the new file are swapped (RENAME_EXCHANGE). If this fails too, nothing
/// changes. Fails for a device or a FIFO, but replaces a link to /dev/null. Any thread.
std::error_code replaceUnreadableFile(const std::string& path, std::string_view contents);

/// Creates the folder `path` and its parents with `mode`, less the umask. Succeeds if the folder exists.
std::error_code makeFolders(const std::string& path, mode_t mode = 0700);

/// Implements the port FileManager with the functions above.
class SystemFileManager final : public FileManager {
 public:
  explicit SystemFileManager(std::string givenHome) : home(std::move(givenHome)) {}

  bool fileExists(const std::string& path) const override;
  FileContents contents(const std::string& path) const override;
  Result<> writeAtomically(const std::string& path, const std::string& contents) override;
  Result<> writePrivately(const std::string& path, const std::string& contents) override;
  Result<> replaceUnreadable(const std::string& path, const std::string& contents) override;
  Result<> createDirectory(const std::string& path) override;
  Result<> removeItem(const std::string& path) override;
  std::string homeDirectoryPath() const override { return home; }

 private:
  const std::string home;
};

}  // namespace kestrune
