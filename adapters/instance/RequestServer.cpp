#include "adapters/instance/RequestServer.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>

#include "adapters/system/System.h"

namespace kestrune {

constexpr std::size_t peerLimit = 64;
constexpr std::size_t requestLimit = 4096;  // bytes of an unfinished request line
constexpr Seconds acceptDelay{1.0};
/// The file name of the socket until listen(2) has succeeded. Then the file is renamed, so that other
/// processes never find a socket that refuses connections.
constexpr auto newSocketName = "socket.new";

std::error_code RequestServer::listen(const std::string& folder) {
  path = std::filesystem::path(folder) / runningSocketName;
  const std::string unfinished = folder + "/" + newSocketName;
  unlink(unfinished.c_str());
  FileDescriptor socket = instanceSocket(folder, newSocketName, &bind);
  if (!socket || ::listen(socket.get(), SOMAXCONN) < 0 || rename(unfinished.c_str(), path.c_str()) < 0)
    return systemError(errno);
  lstat(path.c_str(), &made);
  // Replace the event source while the descriptor that it watches is still open.
  acceptSource = loop.onDescriptor(socket.get(), EPOLLIN, [this] { accept(); });
  listener = std::move(socket);
  return {};
}

bool RequestServer::isInPlace() const {
  struct stat there {};
  return listener && lstat(path.c_str(), &there) == 0 && there.st_dev == made.st_dev &&
         there.st_ino == made.st_ino;
}

void RequestServer::publish(StatusLine line) {
  newest = std::move(line);
  const auto waits = [](const Peer& each) { return each.wish != Wish::nothing; };
  if (std::none_of(peers.begin(), peers.end(), waits)) return;
  const std::string current = newest();
  if (current == told) return;
  for (Peer& each : peers) {
    if (waits(each)) tellStatus(each, current);
  }
}

void RequestServer::accept() {
  FileDescriptor socket(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!socket && errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
    // accept4 has failed, for example because the process has no free descriptor (EMFILE). Stop watching the
    // listener for a while, or the loop would spin.
    sd_event_source_set_enabled(acceptSource.get(), SD_EVENT_OFF);
    acceptTimer =
        loop.after(acceptDelay, [this] { sd_event_source_set_enabled(acceptSource.get(), SD_EVENT_ON); });
  }
  if (!socket || peerOf(socket).uid != geteuid()) return;
  peers.remove_if([](const Peer& each) { return !each.socket; });
  if (peers.size() >= peerLimit) peers.pop_front();
  Peer& peer = peers.emplace_back(Peer{.socket = std::move(socket)});
  peer.input = loop.onDescriptor(peer.socket.get(), EPOLLIN, [this, &peer] { read(peer); });
}

void RequestServer::read(Peer& peer) {
  std::string& unread = peer.unread;
  if (!receive(peer.socket, unread)) return drop(peer);
  // Check `peer.socket` each time: `answer` may drop the peer.
  for (std::size_t end; peer.socket && (end = unread.find('\n')) != std::string::npos;) {
    const std::string line = unread.substr(0, end);
    unread.erase(0, end + 1);
    answer(peer, line);
  }
  if (unread.size() < requestLimit) return;
  tell(peer, "error the request is too long");
  drop(peer);
}

void RequestServer::answer(Peer& peer, const std::string& line) {
  const std::size_t space = line.find(' ');
  const std::string request = line.substr(0, space);
  const std::string argument = space == std::string::npos ? "" : line.substr(space + 1);
  if (request == "status" || request == "follow") {
    peer.wish = request == "follow" ? Wish::everyStatus : Wish::oneStatus;
    if (newest) tellStatus(peer, newest());
  } else if (request == "show") {
    show(argument);
    tell(peer, "ok");
  } else if (request == "perform") {
    // Do nothing if the peer has closed the connection: after its time limit, it has reported that the client
    // does not answer.
    pollfd state{peer.socket.get(), 0, 0};
    if (poll(&state, 1, 0) > 0 && (state.revents & POLLHUP) != 0) return drop(peer);
    const Result<> performed = perform(argument);
    tell(peer, performed ? "ok" : "error " + performed.reason());
  } else {
    tell(peer, "error unknown request");
  }
}

}  // namespace kestrune
