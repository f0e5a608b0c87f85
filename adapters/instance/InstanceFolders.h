#pragma once

#include <sys/socket.h>

#include <string>
#include <vector>

#include "adapters/system/FileDescriptor.h"

namespace kestrune {

/// The socket of a client that answers requests, in its folder.
inline constexpr auto runningSocketName = "socket";
/// The same socket from the moment at which the client no longer answers, but stops the backend.
inline constexpr auto endingSocketName = "ending";

/// The folder in which the client of a user has its lock and its socket, and is found by the other processes
/// of that user. Any thread.
class InstanceFolders {
 public:
  /// `runtime` is the session's runtime folder, empty without one; `state` the user's state folder;
  /// `userRuntimes` holds a runtime folder for each user who is logged in, named by the user id.
  InstanceFolders(std::string runtime, std::string state, const std::string& userRuntimes = "/run/user");

  /// Where a client goes that starts now: into the session's runtime folder, else the user's, else the state
  /// folder. The folder may not exist yet. Runtime folders of other users are passed over.
  std::string current() const;

  /// Connects to the client whose socket has that name. Empty when no process of this user takes the
  /// connection at once. A client is also found that started when there was no runtime folder.
  FileDescriptor connect(const char* socketName) const;

 private:
  const std::vector<std::string> runtimes;
  const std::string state;
};

bool isOwnFolder(const std::string& path);

/// A stream socket that never blocks, and that `use` (`bind` or `connect`) has given the address of the file
/// `name` in `folder`. A file that is made is its owner's alone. Empty with errno set on failure.
FileDescriptor instanceSocket(const std::string& folder, const char* name,
                              int (*use)(int, const sockaddr*, socklen_t));

/// The process at the other end of a connection; of no user when the kernel does not say.
ucred peerOf(const FileDescriptor& socket);

}  // namespace kestrune
