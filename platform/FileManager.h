#pragma once

#include <optional>
#include <string>

namespace kestrune {

/// The files of this machine. Behind a port so that a test brings its own. An operation that fails returns
/// the system's description of the failure, and is absent on success. Main thread.
class FileManager {
 public:
  virtual ~FileManager() = default;

  /// Whether there is a file or folder at `path`; a link to nothing does not count.
  virtual bool fileExists(const std::string& path) const = 0;

  /// All bytes of a file; absent when it cannot be read.
  virtual std::optional<std::string> contents(const std::string& path) const = 0;

  /// Replaces the file, or makes it, in a single step: whoever reads sees the old one or the new one, also
  /// after a power cut. An existing file keeps its mode and owner, a link stays a link; a new file is
  /// readable by its owner alone.
  virtual std::optional<std::string> writeAtomically(const std::string& path,
                                                     const std::string& contents) = 0;

  /// Keeps what the file holds under another name beside it, one that says that it could not be read, while
  /// the file itself stays where it is or goes. Only regular files are kept; anything else is left alone, as
  /// success.
  virtual std::optional<std::string> keepUnreadable(const std::string& path) = 0;

  /// Makes a folder and those above it, with the default mode; one that exists is fine.
  virtual std::optional<std::string> createDirectory(const std::string& path) = 0;

  /// Removes a file.
  virtual std::optional<std::string> removeItem(const std::string& path) = 0;

  /// The user's home folder, without a trailing slash.
  virtual std::string homeDirectoryPath() const = 0;
};

}  // namespace kestrune
