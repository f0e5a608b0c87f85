#include "platform/instance/ClientSubscription.h"

#include <sys/inotify.h>

#include <cerrno>
#include <filesystem>
#include <string_view>
#include <utility>

namespace kestrune {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t lineLimit = std::size_t{1} << 20;  // bytes; ours are a few thousand at most
constexpr Seconds patience{2.0};                         // with a client that says nothing

}  // namespace

ClientSubscription::ClientSubscription(EventLoop& givenLoop, const InstanceFolders& givenFolders,
                                       std::function<void(const std::string&)> givenOnLine,
                                       std::function<void()> givenOnAbsence)
    : loop(givenLoop),
      folders(givenFolders),
      onLine(std::move(givenOnLine)),
      onAbsence(std::move(givenOnAbsence)),
      watch(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  if (watch) changes = loop.onDescriptor(watch.get(), EPOLLIN, [this] { folderChanged(); });
  watchFolder();
  if (!connect()) deadline = loop.after(Seconds{0}, [this] { tellAbsence(); });
}

/// Watches the folder, or the nearest one above it that exists.
void ClientSubscription::watchFolder() {
  const fs::path folder = folders.current();
  fs::path watched, before;
  // Until nothing has changed meanwhile: a folder may be made while the one above it is not watched yet.
  do {
    before = watched;
    watched = folder;
    while (inotify_add_watch(watch.get(), watched.c_str(), IN_CREATE | IN_MOVED_TO | IN_ONLYDIR) < 0 &&
           watched.has_relative_path()) {
      watched = watched.parent_path();
    }
  } while (watched != before);
}

void ClientSubscription::folderChanged() {
  alignas(inotify_event) char events[4096];
  while (::read(watch.get(), events, sizeof events) > 0) {
  }
  watchFolder();
  if (!socket) connect();
}

bool ClientSubscription::connect() {
  socket = folders.connect(runningSocketName);
  if (!socket) return false;
  constexpr std::string_view request = "follow\n";
  send(socket.get(), request.data(), request.size(), MSG_NOSIGNAL);
  heard = false;
  input = loop.onDescriptor(socket.get(), EPOLLIN, [this] { read(); });
  deadline = loop.after(patience, [this] {
    disconnect();
    tellAbsence();
  });
  return true;
}

void ClientSubscription::read() {
  char bytes[16384];
  const ssize_t count = recv(socket.get(), bytes, sizeof bytes, 0);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count > 0) unread.append(bytes, static_cast<std::size_t>(count));
  // Whoever is told of a line may let this go.
  const std::weak_ptr<bool> stillThere = alive;
  for (std::size_t lineEnd; (lineEnd = unread.find('\n')) != std::string::npos;) {
    const std::string line = unread.substr(0, lineEnd);
    unread.erase(0, lineEnd + 1);
    heard = true;
    deadline.reset();
    const auto tell = onLine;
    tell(line);
    if (stillThere.expired()) return;
  }
  if (count > 0 && unread.size() <= lineLimit) return;
  const bool mayHaveSuccessor = heard;
  disconnect();
  if (!mayHaveSuccessor || !connect()) tellAbsence();
}

void ClientSubscription::disconnect() {
  input.reset();
  deadline.reset();
  socket.reset();
  unread.clear();
}

void ClientSubscription::tellAbsence() {
  deadline.reset();
  const auto tell = onAbsence;
  tell();
}

}  // namespace kestrune
