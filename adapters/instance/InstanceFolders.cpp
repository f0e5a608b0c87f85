#include "adapters/instance/InstanceFolders.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "adapters/files/Files.h"

namespace kestrune {

constexpr auto folderName = "/kestrune-menu-client";
constexpr auto linkName = "/kestrune-menu-client/session";

InstanceFolders::InstanceFolders(std::string runtime, std::string givenState, const std::string& userRuntimes)
    : runtimes{std::move(runtime), userRuntimes + "/" + std::to_string(geteuid())},
      state(std::move(givenState)) {}

std::string InstanceFolders::current() const {
  for (const std::string& each : runtimes) {
    if (isOwnFolder(each)) return each + folderName;
  }
  return state + folderName;
}

FileDescriptor InstanceFolders::connect(const char* socketName) const {
  for (const std::string& folder : {current(), state + folderName, state + linkName}) {
    FileDescriptor socket = instanceSocket(folder, socketName, &::connect);
    if (socket && peerOf(socket).uid == geteuid()) return socket;
  }
  return {};
}

void InstanceFolders::leaveLink(const std::string& folder) const {
  if (folder == runtimes.back() + folderName || folder == state + folderName) return;
  const std::string link = state + linkName;
  if (makeFolders(state + folderName)) return;
  const std::string unfinished = link + ".new";
  unlink(unfinished.c_str());
  if (symlink(folder.c_str(), unfinished.c_str()) == 0) rename(unfinished.c_str(), link.c_str());
}

bool isOwnFolder(const std::string& path) {
  struct stat found {};
  return stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode) && found.st_uid == geteuid();
}

FileDescriptor instanceSocket(const std::string& folder, const char* name,
                              int (*use)(int, const sockaddr*, socklen_t)) {
  // Name the folder by its descriptor: sun_path holds only 107 bytes, and the path may be longer.
  const FileDescriptor opened(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!opened) return {};
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s", opened.get(), name);
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  // Set the mode of the socket first: bind(2) creates the file with the mode of the socket.
  if (socket && (fchmod(socket.get(), 0600) != 0 ||
                 use(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)) {
    socket.reset();
  }
  return socket;
}

ucred peerOf(const FileDescriptor& socket) {
  ucred process{0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
  socklen_t size = sizeof process;
  getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &process, &size);
  return process;
}

bool receive(const FileDescriptor& socket, std::string& bytes) {
  char arrived[4096];
  const ssize_t count = recv(socket.get(), arrived, sizeof arrived, 0);
  if (count < 0) return errno == EAGAIN || errno == EINTR;
  bytes.append(arrived, static_cast<std::size_t>(count));
  return count > 0;
}

bool sendLine(const FileDescriptor& socket, std::string line) {
  line += '\n';
  return send(socket.get(), line.data(), line.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(line.size());
}

}  // namespace kestrune
