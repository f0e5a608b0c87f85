#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "adapters/system/FileDescriptor.h"

namespace kestrune {

/// A file that is written completely before it replaces another one. Until then it has a name of its own in
/// the same folder, ".kestrune-new-XXXXXX", and mode 0600 whatever the umask is. It is locked (flock), so
/// that no other process takes it for an abandoned one, and removed with this unless it has replaced the
/// target.
class NewFile {
 public:
  /// Resolve links in `target` first: what is at that name is replaced.
  explicit NewFile(std::filesystem::path target);
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  /// Takes note of owner, mode and access list of the target, so that the new file gets them. Fails when the
  /// target is there but no regular file.
  std::error_code keepAccess();

  /// Writes `contents` and flushes them to the disk. Before that, removes the new files that processes of
  /// this user left in the folder when they were killed.
  std::error_code write(std::string_view contents);

  /// Renames the new file to the target, gives it the access that was kept, and flushes the folder. For a
  /// moment after the rename only this user can open it. In the other order a kill could leave a new file
  /// that others can read.
  std::error_code replaceTarget();

  /// The same, but the target keeps existing under the name `kept`, which is free. Both names change in one
  /// step (RENAME_EXCHANGE), for which some file systems return an error. A kill just before that step leaves
  /// the complete new file as `kept`.
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
  std::string name;  ///< empty when there is nothing to remove
  FileDescriptor file;
  std::optional<Access> access;
};

}  // namespace kestrune
