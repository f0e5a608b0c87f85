#include <sys/inotify.h>

#include <filesystem>
#include <memory>
#include <utility>

#include "adapters/instance/Rendezvous.h"

namespace kestrune {

namespace {

constexpr std::size_t lineLimit = std::size_t{1} << 20;  // bytes; status lines have a few thousand at most
constexpr Seconds patience{2.0};                         // longest wait for the first line of a client

/// Receives the status lines of the running client, and of each client that starts later.
class ClientSubscription final : public std::enable_shared_from_this<ClientSubscription> {
 public:
  ClientSubscription(EventLoop& givenLoop, const InstanceFolders& givenFolders,
                     std::function<void(const std::string&)> givenOnLine,
                     std::function<void()> givenOnAbsence)
      : loop(givenLoop),
        folders(givenFolders),
        onLine(std::move(givenOnLine)),
        onAbsence(std::move(givenOnAbsence)),
        watch(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    if (watch) changes = loop.onDescriptor(watch.get(), EPOLLIN, [this] { folderChanged(); });
    watchFolder();
    if (!connect()) timer = loop.after(Seconds{0}, [this] { disconnect(); });
  }

 private:
  /// Watches the folder of the client's socket (inotify). If this folder is missing, watches its nearest
  /// ancestor that exists.
  void watchFolder() {
    const std::filesystem::path folder = folders.current();
    std::filesystem::path watched, before;
    // Repeat until the same folder is watched twice in a row: a missing folder may be created just before its
    // parent is watched, and then no event reports it.
    do {
      before = std::exchange(watched, folder);
      while (inotify_add_watch(watch.get(), watched.c_str(), IN_CREATE | IN_MOVED_TO | IN_ONLYDIR) < 0 &&
             watched.has_relative_path()) {
        watched = watched.parent_path();
      }
    } while (watched != before);
  }

  void folderChanged() {
    alignas(inotify_event) char events[4096];
    if (::read(watch.get(), events, sizeof events) <= 0) return;
    watchFolder();
    if (!socket) connect();
  }

  bool connect() {
    socket = folders.connect(runningSocketName);
    if (!socket) return false;
    sendLine(socket, "follow");
    input = loop.onDescriptor(socket.get(), EPOLLIN, [this] { read(); });
    timer = loop.after(patience, [this] { disconnect(); });
    return true;
  }

  void read() {
    if (!receive(socket, unread)) return disconnect();
    // `onLine` may destroy this subscription; then `stillThere` expires.
    const auto stillThere = weak_from_this();
    for (std::size_t lineEnd; (lineEnd = unread.find('\n')) != std::string::npos;) {
      const std::string line = unread.substr(0, lineEnd);
      unread.erase(0, lineEnd + 1);
      timer.reset();
      const auto tell = onLine;
      tell(line);
      if (stillThere.expired()) return;
    }
    if (unread.size() > lineLimit) disconnect();
  }

  /// Closes the connection if one is open. If the client had sent a line, connects again after 0.2 s.
  /// Otherwise, or if that fails, tells the subscriber that no client runs.
  void disconnect() {
    const bool wasHeard = socket && !timer;
    input.reset();
    timer.reset();
    socket.reset();
    unread.clear();
    if (!wasHeard) {
      const auto tell = onAbsence;
      return tell();
    }
    // With more than 64 peers, the server disconnects the oldest for each new one. Without a pause, they
    // would reconnect in a busy loop.
    timer = loop.after(Seconds{0.2}, [this] {
      if (!connect()) disconnect();
    });
  }

  EventLoop& loop;
  const InstanceFolders& folders;
  const std::function<void(const std::string&)> onLine;
  const std::function<void()> onAbsence;
  const FileDescriptor watch;  ///< inotify instance that watches the folder of the socket
  FileDescriptor socket;
  std::string unread;
  EventSource changes, input;
  EventSource timer;  ///< limits the wait for the first line, or delays a reconnect
};

}  // namespace

StatusSubscription Rendezvous::subscribe(std::function<void(const std::string&)> onLine,
                                         std::function<void()> onAbsence) {
  return std::make_shared<ClientSubscription>(loop, folders, std::move(onLine), std::move(onAbsence));
}

}  // namespace kestrune
