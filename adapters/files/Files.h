#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <system_error>

namespace kestrune {

/// Reads the whole file at `path`, of `FileManager::sizeLimit` at most, into `contents`, which is left alone
/// on failure. Any thread.
std::error_code readWholeFile(const std::string& path, std::string& contents);

/// Replaces the file at `path` in a single step that survives a power cut: a reader sees the old file or the
/// new one. An existing file keeps its mode and, where this user may give it, its owner, but its owner can
/// always read it; a new one is readable by its owner alone. A symbolic link stays a link: what it points to
/// is replaced, but of a link to "/dev/null" the link itself. Any thread.
std::error_code writeFileAtomically(const std::string& path, std::string_view contents);

/// Replaces what has the name `path`, a link included, by a file with mode 0600, in a single step that
/// survives a power cut. Any thread.
std::error_code writePrivateFile(const std::string& path, std::string_view contents);

/// Gives the file at `path`, or what a link there points to, the name ".damaged" behind its own, with a
/// number where that is taken. A link stays. Any thread.
std::error_code keepDamagedFile(const std::string& path);

/// Whether `failure` says nothing of the file: this process, or the machine, was short of something.
bool isPassing(const std::error_code& failure);

/// Replaces a file that could not be read as `writeFileAtomically` does, and keeps it under the name
/// ".unreadable" behind its own, with a number where that is taken. There is a file at `path` all the while.
/// Kept as a hard link; else as a copy of its bytes; else by exchanging both names. Where none of them works,
/// nothing changes. Anything but a regular file is not kept. Any thread.
std::error_code replaceUnreadableFile(const std::string& path, std::string_view contents);

/// Makes the folder `path` and those above it, with `mode` as far as the umask allows it. One that exists is
/// fine.
std::error_code makeFolders(const std::string& path, mode_t mode = 0700);

}  // namespace kestrune
