#include "platform/linux/StatusSocket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "platform/posix/Diagnostics.h"
#include "platform/posix/Files.h"

namespace kestrune {

namespace fs = std::filesystem;

namespace {

constexpr int backlog = 16;
constexpr std::size_t subscriberLimit = 64;
constexpr std::size_t lineLimit = std::size_t{1} << 20;  // bytes; ours are a few thousand at most
constexpr Seconds descriptorRest{1.0};
constexpr Seconds patience{2.0};  // with a client that says nothing

FileDescriptor newSocket() {
  return FileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

/// Calls `use` with the address of `path`. An address has room for 107 bytes, and so the folder is named by a
/// descriptor. Returns what `use` returns, -1 with errno set on failure.
template <typename Use>
int withAddress(const std::string& path, Use use) {
  const fs::path file(path);
  const FileDescriptor folder(open(file.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!folder) return -1;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s", folder.get(),
                file.filename().c_str());
  const auto* const bytes = static_cast<const void*>(&address);
  return use(static_cast<const sockaddr*>(bytes), static_cast<socklen_t>(sizeof address));
}

/// Who listens at the other end; nobody of this machine when the kernel does not say.
ucred processOf(const FileDescriptor& socket) {
  ucred process{0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
  socklen_t size = sizeof process;
  getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &process, &size);
  return process;
}

/// The lines of a client that runs.
class SocketSubscription final : public StatusSubscription {
 public:
  SocketSubscription(EventLoop& loop, FileDescriptor givenSocket,
                     std::function<void(const std::string&)> givenOnLine, std::function<void()> givenOnEnd)
      : socket(std::move(givenSocket)),
        onLine(std::move(givenOnLine)),
        onEnd(std::move(givenOnEnd)),
        input(loop.onDescriptor(socket.get(), EPOLLIN, [this] { read(); })),
        deadline(loop.after(patience, [this] { end(); })) {}

 private:
  void read() {
    char bytes[16384];
    const ssize_t count = recv(socket.get(), bytes, sizeof bytes, 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) return end();
    unread.append(bytes, static_cast<std::size_t>(count));
    // Whoever is told of a line may let this go.
    const std::weak_ptr<bool> stillThere = alive;
    for (std::size_t lineEnd; (lineEnd = unread.find('\n')) != std::string::npos;) {
      const std::string line = unread.substr(0, lineEnd);
      unread.erase(0, lineEnd + 1);
      deadline.reset();
      const auto tell = onLine;
      tell(line);
      if (stillThere.expired()) return;
    }
    if (unread.size() > lineLimit) end();
  }

  void end() {
    input.reset();
    deadline.reset();
    const auto tell = std::exchange(onEnd, nullptr);
    tell();
  }

  const FileDescriptor socket;
  const std::function<void(const std::string&)> onLine;
  std::function<void()> onEnd;
  const std::shared_ptr<bool> alive = std::make_shared<bool>();
  std::string unread;
  EventSource input;
  EventSource deadline;
};

}  // namespace

StatusSocket::StatusSocket(EventLoop& givenLoop, std::string givenPath)
    : loop(givenLoop), path(std::move(givenPath)) {}

void StatusSocket::publish(const std::string& line) {
  // Somebody has tidied up, or another client has come and gone.
  if (listener && !isInPlace() && !connected()) {
    rest.reset();
    callers.reset();
    listener.reset();
  }
  if (!listener && !listen()) {
    reportOnce("nobody can ask for the status by " + path + ": " +
               std::error_code(errno, std::system_category()).message());
  }
  std::string text = line + "\n";
  if (text == newest) return;
  newest = std::move(text);
  subscribers.remove_if([this](const Subscriber& each) { return !tell(each); });
}

bool StatusSocket::isInPlace() const {
  struct stat found {};
  return lstat(path.c_str(), &found) == 0 && found.st_dev == device && found.st_ino == inode;
}

bool StatusSocket::listen() {
  if (const auto failure = makeFolders(fs::path(path).parent_path())) {
    errno = failure.value();
    return false;
  }
  struct stat found {};
  if (stat(fs::path(path).parent_path().c_str(), &found) < 0) return false;
  if (found.st_uid != geteuid()) {
    errno = EPERM;  // whose folder it is could put another socket there
    return false;
  }
  FileDescriptor made = newSocket();
  if (!made) return false;
  // Left by a client that was killed; or that of another session, which keeps those who are connected.
  if (lstat(path.c_str(), &found) == 0 && (S_ISSOCK(found.st_mode) || S_ISLNK(found.st_mode))) {
    unlink(path.c_str());
  }
  // The mode of the socket is that of its file.
  if (fchmod(made.get(), 0600) < 0 ||
      withAddress(path, [&](const sockaddr* address,
                            socklen_t size) { return bind(made.get(), address, size); }) < 0 ||
      ::listen(made.get(), backlog) < 0) {
    return false;
  }
  if (lstat(path.c_str(), &found) < 0) return false;
  device = found.st_dev;
  inode = found.st_ino;
  listener = std::move(made);
  callers = loop.onDescriptor(listener.get(), EPOLLIN, [this] { accept(); });
  return true;
}

void StatusSocket::accept() {
  while (true) {
    FileDescriptor caller(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (caller) {
      add(std::move(caller));
      continue;
    }
    if (errno == EINTR || errno == ECONNABORTED) continue;
    if (errno == EAGAIN) return;
    // Who waits cannot be taken, and would have the loop turn without end.
    sd_event_source_set_enabled(callers.get(), SD_EVENT_OFF);
    rest = loop.after(descriptorRest, [this] { sd_event_source_set_enabled(callers.get(), SD_EVENT_ON); });
    return;
  }
}

void StatusSocket::add(FileDescriptor socket) {
  if (subscribers.size() >= subscriberLimit) return;
  subscribers.push_back({std::move(socket), nullptr});
  const auto self = std::prev(subscribers.end());
  if (!tell(*self)) return subscribers.pop_back();
  // Subscribers have nothing to say: whatever comes is the end.
  self->end = loop.onDescriptor(self->socket.get(), EPOLLIN, [this, self] { subscribers.erase(self); });
}

/// A line that does not fit into the socket's buffer at once finds nobody who listens.
bool StatusSocket::tell(const Subscriber& subscriber) const {
  const ssize_t sent = send(subscriber.socket.get(), newest.data(), newest.size(), MSG_NOSIGNAL);
  return sent == static_cast<ssize_t>(newest.size());
}

/// Empty when no process of this user takes the connection.
FileDescriptor StatusSocket::connected() const {
  FileDescriptor socket = newSocket();
  if (socket && withAddress(path, [&](const sockaddr* address, socklen_t size) {
                  return connect(socket.get(), address, size);
                }) < 0) {
    socket.reset();
  }
  if (socket && processOf(socket).uid != geteuid()) socket.reset();
  return socket;
}

std::unique_ptr<StatusSubscription> StatusSocket::subscribe(std::function<void(const std::string&)> onLine,
                                                            std::function<void()> onEnd) {
  FileDescriptor socket = connected();
  if (!socket) return nullptr;
  return std::make_unique<SocketSubscription>(loop, std::move(socket), std::move(onLine), std::move(onEnd));
}

std::optional<pid_t> StatusSocket::runningClient() const {
  const FileDescriptor socket = connected();
  if (!socket) return std::nullopt;
  return processOf(socket).pid;
}

}  // namespace kestrune
