#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "adapters/system/FileDescriptor.h"

namespace kestrune {

/// A new file that is written completely before it replaces another file, the target. Until then its name is
/// ".kestrune-new-XXXXXX" in the same folder, and its mode is 0600 whatever the umask is. Its lock (flock)
/// tells other processes that it is not abandoned. The destructor removes it unless it replaced the target.
class NewFile {
 public:
  /// If `target` is a symbolic link, the link itself is replaced, so the caller must resolve links before.
  explicit NewFile(std::filesystem::path target);
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  /// Records owner, mode and ACL of the target, to set them on the new file later; without a target, does
  /// nothing. Fails when the target exists and is not a regular file.
  std::error_code keepAccess();

  /// Creates the new file, writes `contents` to it and flushes it to disk (fsync). First removes new files
  /// that killed processes of this user have left in the folder.
  std::error_code write(std::string_view contents);

  /// Renames the new file to the target, then sets the recorded owner, mode and ACL, then flushes the folder
  /// to disk. Until owner, mode and ACL are set, only this user can open the file. If they were set before
  /// the rename, a kill of this process could leave a temporary file that others can read.
  std::error_code replaceTarget();

  /// Replaces the target like `replaceTarget`, but keeps the old file with the name `kept`, which must be
  /// free. RENAME_EXCHANGE swaps both files in one step; some file systems do not support it. If this process
  /// is killed just before the swap, `kept` is the complete new file.
  std::error_code replaceTargetKeeping(const std::filesystem::path& kept);

 private:
  struct Access {
    uid_t owner;
    gid_t group;
    mode_t mode;
    std::optional<std::string> list;  ///< the ACL; absent when it could not be read
  };
  void finish();

  const std::filesystem::path target;
  const std::filesystem::path folder;
  std::string name;  ///< path of the new file; empty when there is no file to remove
  FileDescriptor file;
  std::optional<Access> access;
};

}  // namespace kestrune
