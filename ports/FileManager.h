#pragma once

#include <cstddef>
#include <string>

#include "ports/Result.h"

namespace kestrune {

/// The result of reading a file.
enum class ReadOutcome {
  read,
  unreadable,  ///< also when there is no such file
  tooLarge,    ///< longer than `FileManager::sizeLimit`
  passing,     ///< no descriptors or memory, or an I/O error: the file itself may be fine
};
struct FileContents {
  ReadOutcome outcome = ReadOutcome::unreadable;
  std::string bytes{};    ///< empty unless the file was read
  std::string problem{};  ///< the system's description; empty when the file was read
};

/// The file system. Main thread.
class FileManager {
 public:
  static constexpr std::size_t sizeLimit = std::size_t{16} << 20;  ///< bytes of the largest file that is read

  virtual ~FileManager() = default;

  /// Whether there is a file or folder at `path`. Follows symbolic links: a dangling one does not count.
  virtual bool fileExists(const std::string& path) const = 0;

  /// All bytes of a file. Only regular files are read.
  virtual FileContents contents(const std::string& path) const = 0;

  /// Replaces or creates the file atomically: a reader sees the old or the new contents, also after a power
  /// cut. An existing file keeps its mode and owner, a symbolic link is followed. A new file has mode 0600.
  virtual Result<> writeAtomically(const std::string& path, const std::string& contents) = 0;

  /// Replaces the file at `path` atomically, also after a power cut; a symbolic link is replaced, not
  /// followed. The new file has mode 0600, whatever the old one had.
  virtual Result<> writePrivately(const std::string& path, const std::string& contents) = 0;

  /// Like `writeAtomically`, but keeps the old file beside the new one, with ".unreadable" appended to its
  /// name. A file is at `path` at every moment; on failure it is the old one. Only regular files are kept.
  virtual Result<> replaceUnreadable(const std::string& path, const std::string& contents) = 0;

  /// Creates a folder and its parents, with the default mode. Succeeds if the folder exists.
  virtual Result<> createDirectory(const std::string& path) = 0;

  virtual Result<> removeItem(const std::string& path) = 0;

  /// The user's home folder, without a trailing slash.
  virtual std::string homeDirectoryPath() const = 0;
};

}  // namespace kestrune
