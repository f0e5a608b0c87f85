#include "adapters/files/Files.h"

#include <fcntl.h>
#include <linux/limits.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <optional>

#include "adapters/system/System.h"

namespace kestrune {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view prefix = ".kestrune-new-";
constexpr std::string_view randomPart = "XXXXXX";
constexpr auto aclAttribute = "system.posix_acl_access";
constexpr int linkLimit = 40;  // symbolic links to follow in a row; the kernel has the same limit

/// Returns whether errno says that the file has no ACL, or that its file system supports none.
bool hasNoAcl() {
  return errno == ENODATA || errno == ENOTSUP;
}

bool isThere(const std::string& name) {
  struct stat state {};
  return lstat(name.c_str(), &state) == 0;
}

/// Removes the temporary files that killed processes of this user have left in `folder`. The temporary files
/// of running processes are locked, and stay.
void removeAbandoned(const fs::path& folder) {
  std::error_code failure;
  const fs::directory_iterator end;
  for (fs::directory_iterator entry(folder, failure); !failure && entry != end; entry.increment(failure)) {
    const std::string path = entry->path();
    const std::string name = entry->path().filename();
    if (!name.starts_with(prefix) || name.size() != prefix.size() + randomPart.size()) continue;
    struct stat state {};
    if (lstat(path.c_str(), &state) != 0 || !S_ISREG(state.st_mode) || state.st_uid != geteuid()) continue;
    // Open the file for writing: on NFS, an exclusive lock needs a descriptor that is open for writing.
    const FileDescriptor file(open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file && flock(file.get(), LOCK_EX | LOCK_NB) == 0) unlink(path.c_str());
  }
}

/// Returns the POSIX ACL of the file as the bytes of its extended attribute; empty when the file has no ACL,
/// absent when the ACL cannot be read.
std::optional<std::string> accessList(const fs::path& path) {
  char list[XATTR_SIZE_MAX];
  const ssize_t size = getxattr(path.c_str(), aclAttribute, list, sizeof list);
  if (size >= 0) return std::string(list, static_cast<std::size_t>(size));
  return hasNoAcl() ? std::optional(std::string()) : std::nullopt;
}

/// Sets the file's ACL. An empty `list` removes the ACL inherited from the folder. Returns false on failure.
bool setAccessList(int file, const std::string& list) {
  if (list.empty()) return fremovexattr(file, aclAttribute) == 0 || hasNoAcl();
  return fsetxattr(file, aclAttribute, list.data(), list.size(), 0) == 0;
}

/// A new file that is written completely before it replaces another file, the target. Until then its name is
/// ".kestrune-new-XXXXXX" in the same folder, and its mode is 0600 whatever the umask is. Its lock (flock)
/// shows that the file is in use. The destructor removes the file if it has not replaced the target.
class NewFile {
 public:
  /// If `target` is a symbolic link, the link itself is replaced.
  explicit NewFile(fs::path givenTarget) : target(std::move(givenTarget)) {}
  ~NewFile() {
    if (!name.empty()) unlink(name.c_str());
  }

  /// Records owner, mode and ACL of the target, to set them on the new file later. Does nothing if the target
  /// is missing or is a symbolic link. Fails if the target is a folder, a device or a FIFO.
  Result<> keepAccess() {
    struct stat found {};
    if (lstat(target.c_str(), &found) != 0 || S_ISLNK(found.st_mode)) return Done{};
    if (!S_ISREG(found.st_mode)) return Failure{describe(S_ISDIR(found.st_mode) ? EISDIR : EINVAL)};
    old = found;
    oldList = accessList(target);
    return Done{};
  }

  /// Creates the new file, writes `contents` to it and flushes it to disk (fsync).
  Result<> write(std::string_view contents) {
    removeAbandoned(target.parent_path());
    // Until this process has locked the new file, another process may lock the file and remove it as
    // abandoned. So repeat if the file is locked by another process, or is missing. Ignore other errors of
    // flock(2), because some file systems support no locks.
    do {
      std::string created = target.parent_path() / (std::string(prefix) + std::string(randomPart));
      file = FileDescriptor(mkostemp(created.data(), O_CLOEXEC));
      if (!file) return Failure{describe(errno)};
      name = created;
    } while ((flock(file.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) || !isThere(name));
    fchmod(file.get(), S_IRUSR | S_IWUSR);  // the umask may have cleared these mode bits
    while (!contents.empty()) {
      const ssize_t written = ::write(file.get(), contents.data(), contents.size());
      if (written < 0 && errno == EINTR) continue;
      if (written < 0) return Failure{describe(errno)};
      contents.remove_prefix(static_cast<std::size_t>(written));
    }
    if (fsync(file.get()) != 0) return Failure{describe(errno)};
    return Done{};
  }

  /// Renames the new file to the target, then sets the recorded owner, mode and ACL, then flushes the folder
  /// to disk. Until owner, mode and ACL are set, only this user can open the file. If they were set before
  /// the rename, a kill of this process could leave a temporary file that others can read.
  Result<> replaceTarget() {
    if (rename(name.c_str(), target.c_str()) != 0) return Failure{describe(errno)};
    finish();
    return Done{};
  }

  /// Replaces the target like `replaceTarget`. If `keepAccess` has found an old file, also keeps that file,
  /// and sets `kept` to its new path. Makes `kept` a hard link to the old file. If link(2) fails, copies the
  /// old file to `kept`. If the old file cannot be read either, renames the new file to `kept`, then swaps
  /// `kept` and the target (RENAME_EXCHANGE). If this process is killed between these two steps, the target
  /// is still the old file, and `kept` is the complete new file.
  Result<> replaceTargetKeepingOld(std::string& kept) {
    if (!old) return replaceTarget();
    const std::string wanted = target.string() + ".unreadable";
    kept = wanted;
    for (int number = 2; isThere(kept); ++number) kept = wanted + "-" + std::to_string(number);
    if (link(target.c_str(), kept.c_str()) != 0) {
      // The file system supports no hard links, or the kernel refuses a hard link to another user's file (if
      // fs.protected_hardlinks is set).
      const Failure linkFailure{describe(errno)};
      std::string bytes;
      if (readWholeFile(target, bytes)) return swapWithTarget(kept, linkFailure);
      NewFile copy(kept);
      if (const Result<> written = copy.write(bytes); !written) return written;
      if (const Result<> replaced = copy.replaceTarget(); !replaced) return replaced;
    }
    const Result<> replaced = replaceTarget();
    // Remove `kept` only if the new file has not been renamed. On NFS, rename(2) can fail although the server
    // has renamed the file; then only `kept` holds the old file.
    if (!replaced && isThere(name)) unlink(kept.c_str());
    return replaced;
  }

 private:
  /// Does the last two steps of `replaceTargetKeepingOld`. On failure, returns `linkFailure`.
  Result<> swapWithTarget(const fs::path& kept, const Failure& linkFailure) {
    // Do not swap the temporary file with the target directly: the old file would then have the temporary
    // name, and another process could remove it as abandoned.
    if (renameat2(AT_FDCWD, name.c_str(), AT_FDCWD, kept.c_str(), RENAME_NOREPLACE) != 0) return linkFailure;
    name = kept;
    if (renameat2(AT_FDCWD, kept.c_str(), AT_FDCWD, target.c_str(), RENAME_EXCHANGE) != 0) return linkFailure;
    finish();
    return Done{};
  }

  void finish() {
    name.clear();
    if (old) {
      // Set the mode last. fchown clears the set-user-ID and set-group-ID bits of the mode. If the old file
      // had an ACL, the group bits of its mode are the mask of that ACL. While the new file has no ACL, these
      // bits would grant rights to its group.
      const mode_t mode = (old->st_mode & 07777) | S_IRUSR;
      const bool shared = (fchown(file.get(), old->st_uid, old->st_gid) == 0 ||
                           fchown(file.get(), uid_t(-1), old->st_gid) == 0) &&
                          oldList && setAccessList(file.get(), *oldList) && fchmod(file.get(), mode) == 0;
      if (!shared) fchmod(file.get(), mode & ~mode_t{077});
      fsync(file.get());
    }
    file.reset();
    // Flush the folder's entries to disk. Ignore errors: the file has already been replaced.
    const FileDescriptor entries(open(target.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (entries) fsync(entries.get());
  }

  const fs::path target;
  std::string name;  ///< path of the new file; empty while the destructor has no file to remove
  FileDescriptor file;
  std::optional<struct stat> old;      ///< absent until `keepAccess` has found a file to replace
  std::optional<std::string> oldList;  ///< the ACL of the old file; absent when it could not be read
};

/// If `path` is a symbolic link, replaces `path` by the final target, which may be missing (dangling link).
Result<> followLinks(fs::path& path) {
  for (int followed = 0; followed <= linkLimit; ++followed) {
    std::error_code failure;
    const fs::path target = fs::read_symlink(path, failure);
    if (failure) return Done{};
    path = target.is_absolute() ? target : path.parent_path() / target;
  }
  return Failure{describe(ELOOP)};
}

/// Replaces the file at `path`. Follows a symbolic link, unless it leads to /dev/null. If `kept` is not null
/// and there is an old file, keeps the old file, and stores its path in `*kept`.
Result<> replaceFile(const std::string& path, const std::string& contents, std::string* kept = nullptr) {
  fs::path target(path);
  if (const Result<> found = followLinks(target); !found) return found;
  struct stat state {};
  const bool leadsToDevNull =
      stat(target.c_str(), &state) == 0 && S_ISCHR(state.st_mode) && state.st_rdev == makedev(1, 3);
  if (leadsToDevNull) target = path;
  NewFile file(target);
  if (const Result<> recorded = file.keepAccess(); !recorded) return recorded;
  if (const Result<> written = file.write(contents); !written) return written;
  return kept ? file.replaceTargetKeepingOld(*kept) : file.replaceTarget();
}

}  // namespace

std::error_code makeFolders(const std::string& path, mode_t mode) {
  std::error_code failure;
  if (fs::is_directory(path, failure)) return {};
  if (const fs::path parent = fs::path(path).parent_path(); !parent.empty() && parent != path) {
    if (const auto above = makeFolders(parent, mode)) return above;
  }
  if (mkdir(path.c_str(), mode) == 0) return {};
  const std::error_code problem = systemError(errno);
  // If mkdir has failed because another process has just created the folder, return success. If `path` is an
  // existing file that is not a folder, return `not_a_directory`.
  if (fs::is_directory(path, failure)) return {};
  return problem == std::errc::file_exists ? std::make_error_code(std::errc::not_a_directory) : problem;
}

FileContents SystemFileManager::contents(const std::string& path) const {
  // After one of these errors, the file itself may be in order. EAGAIN: a file server holds a lease on the
  // file (fcntl(2), F_SETLEASE). The errors from ESTALE to EHOSTUNREACH come from network file systems.
  static constexpr int temporary[] = {EMFILE, ENFILE,   ENOMEM,    EIO,       EAGAIN,
                                      ESTALE, ENOTCONN, ETIMEDOUT, EHOSTDOWN, EHOSTUNREACH};
  std::string bytes;
  const std::error_code failure = readWholeFile(path, bytes);
  if (!failure) return {ReadOutcome::read, std::move(bytes)};
  const bool isTemporary = std::ranges::find(temporary, failure.value()) != std::end(temporary);
  const ReadOutcome outcome = failure == std::errc::file_too_large ? ReadOutcome::tooLarge
                              : isTemporary                        ? ReadOutcome::temporaryFailure
                                                                   : ReadOutcome::unreadable;
  return {outcome, {}, failure.message()};
}

Result<> SystemFileManager::writeAtomically(const std::string& path, const std::string& contents) {
  return replaceFile(path, contents);
}

Result<> SystemFileManager::writePrivately(const std::string& path, const std::string& contents) {
  NewFile file(path);
  const Result<> written = file.write(contents);
  return written ? file.replaceTarget() : written;
}

Result<std::string> SystemFileManager::replaceUnreadable(const std::string& path,
                                                         const std::string& contents) {
  std::string kept;
  if (const Result<> replaced = replaceFile(path, contents, &kept); !replaced)
    return Failure{replaced.reason()};
  return kept;
}

}  // namespace kestrune
