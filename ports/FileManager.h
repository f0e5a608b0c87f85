#pragma once

#include <cstddef>
#include <string>

#include "ports/Result.h"

namespace kestrune {

/// What came of reading a file.
enum class ReadOutcome {
  read,
  unreadable,  ///< also when there is no such file
  tooLarge,    ///< longer than `FileManager::sizeLimit`
  passing,     ///< says nothing of the file: short of descriptors or memory, or a disk that does not answer
};
struct FileContents {
  ReadOutcome outcome = ReadOutcome::unreadable;
  std::string bytes{};    ///< empty unless the file was read
  std::string problem{};  ///< the system's description; empty when the file was read
};

/// The files of this machine. Behind a port so that a test brings its own. Main thread.
class FileManager {
 public:
  static constexpr std::size_t sizeLimit = std::size_t{16} << 20;  ///< bytes of the largest file that is read

  virtual ~FileManager() = default;

  /// Whether there is a file or folder at `path`; a link to nothing does not count.
  virtual bool fileExists(const std::string& path) const = 0;

  /// All bytes of a file. Only regular files are read.
  virtual FileContents contents(const std::string& path) const = 0;

  /// Replaces the file, or makes it, in a single step: whoever reads sees the old one or the new one, also
  /// after a power cut. An existing file keeps its mode and owner, a link stays a link; a new file is
  /// readable by its owner alone.
  virtual Result<> writeAtomically(const std::string& path, const std::string& contents) = 0;

  /// Replaces what is at `path`, be it a link, in a single step that survives a power cut. The new file is
  /// readable by its owner alone, whatever the old one was.
  virtual Result<> writePrivately(const std::string& path, const std::string& contents) = 0;

  /// As `writeAtomically`, but the old file is kept beside the new one, under a name that says that it could
  /// not be read. There is a file at `path` all the while, and on failure it is the old one. Only regular
  /// files are kept.
  virtual Result<> replaceUnreadable(const std::string& path, const std::string& contents) = 0;

  /// Makes a folder and those above it, with the default mode; one that exists is fine.
  virtual Result<> createDirectory(const std::string& path) = 0;

  /// Removes a file.
  virtual Result<> removeItem(const std::string& path) = 0;

  /// The user's home folder, without a trailing slash.
  virtual std::string homeDirectoryPath() const = 0;
};

}  // namespace kestrune
