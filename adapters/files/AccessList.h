#pragma once

#include <optional>
#include <string>

namespace kestrune {

/// The access list of the file at `path`, as the kernel writes it down: who may use it, beyond what its mode
/// says. Empty when it has none; absent when it cannot be read. Any thread.
std::optional<std::string> accessList(const std::string& path);

/// Gives the open file that access list, or none where it is empty, whatever its folder handed down to it.
/// False when that fails. Any thread.
bool setAccessList(int file, const std::string& list);

}  // namespace kestrune
