#pragma once

#include <sys/socket.h>

#include <string>
#include <system_error>
#include <vector>

#include "platform/posix/FileDescriptor.h"

namespace kestrune {

/// The name of the socket of a client that answers requests, in its folder.
inline constexpr auto runningSocketName = "socket";
/// The name of the same socket from the moment at which the client no longer answers, but stops the backend.
inline constexpr auto endingSocketName = "ending";

/// The folder in which the client of a user has its lock file and its socket, and is found by other processes
/// of that user. Any thread.
class InstanceFolders {
 public:
  /// `runtime` is the session's runtime folder, empty without one; `state` the user's state folder;
  /// `userRuntimes` holds a runtime folder for each user who is logged in, named by the user id.
  InstanceFolders(std::string runtime, std::string state, const std::string& userRuntimes = "/run/user");

  /// The folder for a client that starts now, which may not exist yet: in the session's runtime folder, else
  /// in the user's, else in the state folder. A runtime folder that is not this user's is passed over.
  std::string current() const;

  /// Connects to the client whose socket has that name, without blocking. Empty when there is none, or it is
  /// not a process of this user. A client that started without a runtime folder is found as well.
  FileDescriptor connect(const char* socketName) const;

 private:
  const std::vector<std::string> runtimes;
  const std::string state;
};

/// Makes the folder if need be, for its owner alone. EPERM for a folder of another user, who could replace
/// the files in it.
std::error_code makeInstanceFolder(const std::string& folder);

/// A stream socket of AF_UNIX that never blocks.
FileDescriptor newInstanceSocket();

/// Calls `use` (`bind` or `connect`) with the address of the file `name` in `folder`. The address has room
/// for 107 bytes, and so it names the folder by its descriptor. -1 with errno set on failure.
int withSocketAddress(int socket, const std::string& folder, const char* name,
                      int (*use)(int, const sockaddr*, socklen_t));

/// The process at the other end of a connected socket; of no user when the kernel does not say.
ucred peerOf(const FileDescriptor& socket);

/// What `errno` says.
std::error_code lastSystemError();

}  // namespace kestrune
