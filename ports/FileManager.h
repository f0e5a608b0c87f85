#pragma once

#include <cstddef>
#include <string>

#include "ports/Result.h"

namespace kestrune {

enum class ReadOutcome {
  read,
  unreadable,        ///< missing, not a regular file, or not permitted
  tooLarge,          ///< longer than `FileManager::sizeLimit`
  temporaryFailure,  ///< such as EMFILE, EIO or EAGAIN; a later try may succeed
};
struct FileContents {
  ReadOutcome outcome = ReadOutcome::unreadable;
  std::string bytes{};    ///< empty unless the file was read
  std::string problem{};  ///< the system's error message; empty when the file was read
};

/// Reads and writes files. Main thread.
class FileManager {
 public:
  static constexpr std::size_t sizeLimit = std::size_t{16} << 20;  ///< in bytes; a longer file is not read

  virtual ~FileManager() = default;

  /// Returns whether a file or folder exists at `path`. A dangling symbolic link does not count.
  virtual bool fileExists(const std::string& path) const = 0;

  virtual FileContents contents(const std::string& path) const = 0;

  /// Replaces or creates the file atomically: a reader sees the old or the new contents, even after a power
  /// cut. An existing file keeps its mode and owner; a symbolic link is followed. A new file has mode 0600.
  virtual Result<> writeAtomically(const std::string& path, const std::string& contents) = 0;

  /// Replaces or creates the file atomically, even if the power fails. A symbolic link is replaced, not
  /// followed. The new file has mode 0600, whatever mode the old file had.
  virtual Result<> writePrivately(const std::string& path, const std::string& contents) = 0;

  /// Like `writeAtomically`, for a file whose contents could not be read. If the old file is a regular file,
  /// keeps it in the same folder, with ".unreadable" appended to its name. Returns the path of the kept file;
  /// empty if none was kept. After a failure, the old file is still at `path`, but on NFS possibly only at
  /// the name with ".unreadable": rename(2) can fail although the server has renamed the new file.
  virtual Result<std::string> replaceUnreadable(const std::string& path, const std::string& contents) = 0;

  /// Creates the folder and its missing parents, with mode 0777 & ~umask. Succeeds if the folder exists.
  virtual Result<> createDirectory(const std::string& path) = 0;

  /// Removes a file, if it exists. Does not report a failure.
  virtual void removeItem(const std::string& path) = 0;

  /// Returns the path of the user's home folder, without a trailing slash.
  virtual std::string homeDirectoryPath() const = 0;
};

}  // namespace kestrune
