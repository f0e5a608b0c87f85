#pragma once

#include <sys/socket.h>

#include <string>
#include <vector>

#include "adapters/system/FileDescriptor.h"

namespace kestrune {

/// The file name of the socket of a client that answers requests.
inline constexpr auto runningSocketName = "socket";
/// The name of the same socket once the client stops the backend and answers no more requests.
inline constexpr auto endingSocketName = "ending";

/// The folder with the lock and the socket of a user's client, where other processes of that user find it.
/// Any thread.
class InstanceFolders {
 public:
  /// `runtime` is the session's runtime folder, empty without one; `state` is the user's state folder;
  /// `userRuntimes` contains a runtime folder per logged-in user, named by the user ID.
  InstanceFolders(std::string runtime, std::string state, const std::string& userRuntimes = "/run/user");

  /// The folder for a client that starts now: in the session's runtime folder, else the user's, else the
  /// state folder. It may not exist yet. Runtime folders of other users are skipped.
  std::string current() const;

  /// Connects to the client's socket of that name. Empty when no process of this user accepts at once. Tries
  /// the state folder too, for a client that started without a runtime folder.
  FileDescriptor connect(const char* socketName) const;

 private:
  const std::vector<std::string> runtimes;
  const std::string state;
};

bool isOwnFolder(const std::string& path);

/// A non-blocking stream socket, after `use` (`bind` or `connect`) with the address of the file `name` in
/// `folder`. A file that is created has mode 0600. Empty with errno set on failure.
FileDescriptor instanceSocket(const std::string& folder, const char* name,
                              int (*use)(int, const sockaddr*, socklen_t));

/// The credentials of the peer process (SO_PEERCRED); user ID -1 when the kernel does not tell them.
ucred peerOf(const FileDescriptor& socket);

/// Appends what has arrived on the socket. False at end of file or on an error.
bool receive(const FileDescriptor& socket, std::string& bytes);

/// Sends a line; its end is added. False when it does not fit into the socket's buffer.
bool sendLine(const FileDescriptor& socket, std::string line);

}  // namespace kestrune
