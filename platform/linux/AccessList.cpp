#include "platform/posix/AccessList.h"

#include <sys/xattr.h>

#include <cerrno>

namespace kestrune {

bool copyAccessList(const std::string& path, int file) {
  static constexpr auto attribute = "system.posix_acl_access";
  const ssize_t size = getxattr(path.c_str(), attribute, nullptr, 0);
  if (size < 0 && errno == ENOTSUP) return true;
  if (size < 0 && errno == ENODATA) {
    // What the folder hands down to new files is not what the old one had.
    return fremovexattr(file, attribute) == 0 || errno == ENODATA;
  }
  if (size < 0) return false;
  std::string list(static_cast<std::size_t>(size), '\0');
  const ssize_t count = getxattr(path.c_str(), attribute, list.data(), list.size());
  return count >= 0 && fsetxattr(file, attribute, list.data(), static_cast<std::size_t>(count), 0) == 0;
}

}  // namespace kestrune
