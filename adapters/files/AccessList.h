#pragma once

#include <optional>
#include <string>

namespace kestrune {

/// The POSIX ACL of the file at `path`, as the bytes of the extended attribute system.posix_acl_access. Empty
/// when it has none; absent when it cannot be read. Any thread.
std::optional<std::string> accessList(const std::string& path);

/// Sets the ACL of the open file; an empty `list` removes the one that it inherited from its folder. False on
/// failure. Any thread.
bool setAccessList(int file, const std::string& list);

}  // namespace kestrune
