#include "adapters/files/AccessList.h"

#include <sys/xattr.h>

#include <cerrno>

namespace kestrune {

namespace {

constexpr auto attribute = "system.posix_acl_access";

/// Whether errno says that the file, or its file system, has no ACL.
bool hasNone() {
  return errno == ENODATA || errno == ENOTSUP;
}

}  // namespace

std::optional<std::string> accessList(const std::string& path) {
  const ssize_t size = getxattr(path.c_str(), attribute, nullptr, 0);
  if (size < 0) return hasNone() ? std::optional(std::string()) : std::nullopt;
  std::string list(static_cast<std::size_t>(size), '\0');
  const ssize_t count = getxattr(path.c_str(), attribute, list.data(), list.size());
  if (count < 0) return std::nullopt;
  list.resize(static_cast<std::size_t>(count));
  return list;
}

bool setAccessList(int file, const std::string& list) {
  if (list.empty()) return fremovexattr(file, attribute) == 0 || hasNone();
  return fsetxattr(file, attribute, list.data(), list.size(), 0) == 0;
}

}  // namespace kestrune
