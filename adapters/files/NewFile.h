#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "adapters/system/FileDescriptor.h"

namespace kestrune {

/// A file that is written completely before it replaces another. Until then its name is
/// ".kestrune-new-XXXXXX" in the same folder, and its mode 0600 whatever the umask is. A lock (flock) tells
/// other processes that it is not abandoned. The destructor removes it unless it has replaced the target.
class NewFile {
 public:
  /// Resolve symbolic links in `target` first: a link there is replaced.
  explicit NewFile(std::filesystem::path target);
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  /// Records owner, mode and ACL of the target for the new file. Fails when the target exists and is not a
  /// regular file.
  std::error_code keepAccess();

  /// Writes `contents` and flushes them to disk (fsync). Before that, removes new files that were left in the
  /// folder by killed processes of this user.
  std::error_code write(std::string_view contents);

  /// Renames the new file to the target, then sets the recorded access, then flushes the folder. Between the
  /// rename and that, only this user can open the file. The other order could leave a temporary file that
  /// others can read, if this process is killed.
  std::error_code replaceTarget();

  /// The same, but the old file stays as `kept`, which must be a free name. RENAME_EXCHANGE swaps both names
  /// in one step; some file systems do not support it. A kill just before the swap leaves the complete new
  /// file as `kept`.
  std::error_code replaceTargetKeeping(const std::filesystem::path& kept);

 private:
  struct Access {
    uid_t owner;
    gid_t group;
    mode_t mode;
    std::optional<std::string> list;  ///< absent when it could not be read
  };
  void finish();

  const std::filesystem::path target;
  const std::filesystem::path folder;
  std::string name;  ///< empty when there is no file to remove
  FileDescriptor file;
  std::optional<Access> access;
};

}  // namespace kestrune
