#pragma once

#include <string>

namespace kestrune {

/// Gives the open file the access list of the file at `path`: who may use it, beyond what its mode says.
/// Where that has none, the open file has none after this. False if there is one that could not be given,
/// with errno set. Any thread.
bool copyAccessList(const std::string& path, int file);

}  // namespace kestrune
