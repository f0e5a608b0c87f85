#include "platform/instance/InstanceFolders.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "platform/posix/Files.h"

namespace kestrune {

namespace {

constexpr auto folderName = "/kestrune-menu-client";

bool isOwnFolder(const std::string& path) {
  struct stat found {};
  return stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode) && found.st_uid == geteuid();
}

}  // namespace

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
  for (const std::string& folder : {current(), state + folderName}) {
    FileDescriptor socket = newInstanceSocket();
    if (withSocketAddress(socket.get(), folder, socketName, &::connect) == 0 &&
        peerOf(socket).uid == geteuid()) {
      return socket;
    }
  }
  return {};
}

std::error_code makeInstanceFolder(const std::string& folder) {
  if (const auto failure = makeFolders(folder)) return failure;
  return isOwnFolder(folder) ? std::error_code() : std::error_code(EPERM, std::system_category());
}

FileDescriptor newInstanceSocket() {
  return FileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

int withSocketAddress(int socket, const std::string& folder, const char* name,
                      int (*use)(int, const sockaddr*, socklen_t)) {
  const FileDescriptor opened(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!opened) return -1;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s", opened.get(), name);
  const void* const bytes = &address;
  return use(socket, static_cast<const sockaddr*>(bytes), sizeof address);
}

ucred peerOf(const FileDescriptor& socket) {
  ucred process{0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
  socklen_t size = sizeof process;
  getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &process, &size);
  return process;
}

std::error_code lastSystemError() {
  return {errno, std::system_category()};
}

}  // namespace kestrune
