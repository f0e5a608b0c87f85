#pragma once

#include <string>
#include <system_error>

namespace kestrune {

/// Reads the whole file at `path` into `contents`. Fails if the file has more than `FileManager::sizeLimit`
/// bytes. On failure, `contents` is unchanged. Any thread. Do not use std::ifstream instead: libstdc++ is
/// linked statically, and its streams would add 0.4 MB of code.
std::error_code readWholeFile(const std::string& path, std::string& contents);

}  // namespace kestrune
