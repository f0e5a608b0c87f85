#include "adapters/files/NewFile.h"

#include <fcntl.h>
#include <linux/limits.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "adapters/system/Errors.h"

namespace kestrune {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view prefix = ".kestrune-new-";
constexpr std::string_view randomPart = "XXXXXX";
constexpr auto aclAttribute = "system.posix_acl_access";

/// Returns whether errno says that the file has no ACL, or that its file system supports none.
bool hasNoAcl() {
  return errno == ENODATA || errno == ENOTSUP;
}

std::error_code writeAll(int descriptor, std::string_view contents) {
  while (!contents.empty()) {
    const ssize_t written = write(descriptor, contents.data(), contents.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return lastError();
    contents.remove_prefix(static_cast<std::size_t>(written));
  }
  return fsync(descriptor) == 0 ? std::error_code() : lastError();
}

bool isThere(const std::string& name) {
  struct stat state {};
  return lstat(name.c_str(), &state) == 0;
}

/// Locks the file. Returns false when another process has locked it; true on a file system without flock.
bool lock(int file) {
  return flock(file, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
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

/// Sets the ACL of a file; an empty `list` removes the ACL inherited from the folder. False on failure.
bool setAccessList(int file, const std::string& list) {
  if (list.empty()) return fremovexattr(file, aclAttribute) == 0 || hasNoAcl();
  return fsetxattr(file, aclAttribute, list.data(), list.size(), 0) == 0;
}

fs::path folderOf(const fs::path& file) {
  return file.has_parent_path() ? file.parent_path() : fs::path(".");
}

/// Flushes the folder's entries to disk (fsync). Ignores errors, because the file has been renamed already.
void flush(const fs::path& folder) {
  const FileDescriptor descriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (descriptor) fsync(descriptor.get());
}

}  // namespace

NewFile::NewFile(fs::path givenTarget) : target(std::move(givenTarget)), folder(folderOf(target)) {}

NewFile::~NewFile() {
  if (!name.empty()) unlink(name.c_str());
}

std::error_code NewFile::keepAccess() {
  struct stat old {};
  if (lstat(target.c_str(), &old) != 0 || S_ISLNK(old.st_mode)) return {};
  if (S_ISDIR(old.st_mode)) return systemError(EISDIR);
  if (!S_ISREG(old.st_mode)) return systemError(EINVAL);
  access = Access{old.st_uid, old.st_gid, (old.st_mode & 07777) | S_IRUSR, accessList(target)};
  return {};
}

std::error_code NewFile::write(std::string_view contents) {
  removeAbandoned(folder);
  // Repeat if another process has removed the file as abandoned, between its creation and its lock.
  do {
    name = folder / (std::string(prefix) + std::string(randomPart));
    file = FileDescriptor(mkostemp(name.data(), O_CLOEXEC));
    if (!file) {
      name.clear();
      return lastError();
    }
  } while (!lock(file.get()) || !isThere(name));
  fchmod(file.get(), S_IRUSR | S_IWUSR);  // the umask may have cleared these mode bits
  return writeAll(file.get(), contents);
}

std::error_code NewFile::replaceTarget() {
  if (rename(name.c_str(), target.c_str()) != 0) return lastError();
  finish();
  return {};
}

std::error_code NewFile::replaceTargetKeeping(const fs::path& kept) {
  // First rename the new file to `kept`, then swap both files. Otherwise, the swap would give the temporary
  // name to the old file, and another process could remove the old file as abandoned.
  if (renameat2(AT_FDCWD, name.c_str(), AT_FDCWD, kept.c_str(), RENAME_NOREPLACE) != 0) return lastError();
  name = kept;
  if (renameat2(AT_FDCWD, kept.c_str(), AT_FDCWD, target.c_str(), RENAME_EXCHANGE) != 0) return lastError();
  finish();
  return {};
}

void NewFile::finish() {
  name.clear();
  if (access) {
    // Set the owner first, because fchown clears mode bits. Set the mode last: if the file has an ACL, the
    // group bits of the mode are the ACL's mask, and before the ACL is set they would be rights of the group.
    const bool shared = (fchown(file.get(), access->owner, access->group) == 0 ||
                         fchown(file.get(), uid_t(-1), access->group) == 0) &&
                        access->list && setAccessList(file.get(), *access->list) &&
                        fchmod(file.get(), access->mode) == 0;
    if (!shared) fchmod(file.get(), access->mode & ~mode_t{077});
    fsync(file.get());
  }
  file.reset();
  flush(folder);
}

}  // namespace kestrune
