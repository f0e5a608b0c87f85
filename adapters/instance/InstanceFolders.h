#pragma once

#include <sys/socket.h>

#include <string>
#include <vector>

#include "adapters/system/System.h"

namespace kestrune {

/// The file name of a client's socket while the client answers requests.
inline constexpr auto runningSocketName = "socket";
/// The file name of the same socket while the client ends. The client then answers no more requests.
inline constexpr auto endingSocketName = "ending";

/// Finds the folder with the lock and the socket of a user's client, so that other processes of the user can
/// reach the client. Any thread.
class InstanceFolders {
 public:
  /// `runtime`: the session's runtime folder; empty when there is none. `state`: the user's state folder.
  /// `userRuntimes`: a folder that contains a runtime folder for each logged-in user, named by the user ID.
  InstanceFolders(std::string runtime, std::string state, const std::string& userRuntimes = "/run/user");

  /// Returns the path of the folder for a client that starts now. The folder may not exist yet. Its parent is
  /// the session's runtime folder, else the user's folder in `userRuntimes`, else the state folder. Skips a
  /// runtime folder that is missing or belongs to another user.
  std::string current() const;

  /// Connects to the socket `socketName` in the folder `current()`. If that fails, tries the folder below
  /// `state`: a client uses that folder if it finds no runtime folder when it starts. Then tries the folder
  /// to which the link of `leaveLink` points. Returns an empty descriptor if no process of this user accepts
  /// the connection at once.
  FileDescriptor connect(const char* socketName) const;

  /// Call this when a client listens in `folder`. If processes without a session would not find this folder,
  /// leaves a symbolic link to it below `state`. Ignores failures.
  void leaveLink(const std::string& folder) const;

 private:
  const std::vector<std::string> runtimes;
  const std::string state;
};

bool isOwnFolder(const std::string& path);

/// Makes a non-blocking stream socket, and calls `use` (`bind` or `connect`) with the address of the file
/// `name` in `folder`. `bind` creates this file with mode 0600. On failure, sets errno and returns an empty
/// descriptor.
FileDescriptor instanceSocket(const std::string& folder, const char* name,
                              int (*use)(int, const sockaddr*, socklen_t));

/// Returns the credentials of the peer process (SO_PEERCRED); user ID -1 if the kernel does not know them.
ucred peerOf(const FileDescriptor& socket);

/// Reads once, without blocking, and appends what has arrived to `bytes`. Returns false at end of file or on
/// an error. Returns true in all other cases, even if nothing has arrived (EAGAIN).
bool receive(const FileDescriptor& socket, std::string& bytes);

/// Sends `line` and a newline. Returns false when they do not fit into the socket's buffer, or on an error.
bool sendLine(const FileDescriptor& socket, std::string line);

}  // namespace kestrune
