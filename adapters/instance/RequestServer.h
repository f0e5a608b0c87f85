#pragma once

#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include "adapters/instance/InstanceFolders.h"
#include "adapters/loop/EventLoop.h"
#include "ports/StatusFeed.h"

namespace kestrune {

/// Answers the requests of other processes of this user on the client's socket. Each request is a line:
///
///     status           sends the newest status line, as soon as there is one
///     follow           sends the newest status line, and then each later status line
///     show [TOKEN]     shows the menu (TOKEN: an XDG activation token), and answers "ok"
///     perform ACTION   chooses the menu row of this action; answers "ok", or "error" and a reason.
///                      Ignored if the peer has closed the connection
///
/// The answer to any other line is "error" and a reason. Disconnects a peer (a connected process) if it has
/// sent 4096 bytes or more of an unfinished line, or does not read its answers. A 65th peer replaces the
/// oldest. Main thread.
class RequestServer {
 public:
  using Show = std::function<void(const std::string& activationToken)>;
  using Perform = std::function<Result<>(const std::string& action)>;

  RequestServer(EventLoop& givenLoop, Show givenShow) : loop(givenLoop), show(std::move(givenShow)) {}

  /// Creates the socket in `folder`, which must exist; replaces an existing socket. Peers stay connected.
  /// On failure, a socket that was created before still answers, but only counts as in place in this
  /// `folder`.
  std::error_code listen(const std::string& folder);

  void onPerform(Perform given) { perform = std::move(given); }

  /// Returns whether the file that `listen` has created is still at its path.
  bool isInPlace() const;

  /// Sends a status line to the peers that wait for one; see StatusFeed.h.
  void publish(StatusLine line);

  /// Renames the socket to "ending". Another process can connect to "ending" to wait for the end of this
  /// process, because the kernel closes the connection when this process ends.
  void announceEnd() {
    if (isInPlace()) rename(path.c_str(), (path.parent_path() / endingSocketName).c_str());
  }

 private:
  enum class Wish { nothing, oneStatus, everyStatus };
  /// A connected process. After `drop`, it has no socket and no wish, and is removed later.
  struct Peer {
    FileDescriptor socket;
    std::string unread{};
    Wish wish = Wish::nothing;
    EventSource input{};
  };

  void accept();
  void read(Peer& peer);
  void answer(Peer& peer, const std::string& line);
  void tellStatus(Peer& peer, const std::string& line) {
    if (peer.wish == Wish::oneStatus) peer.wish = Wish::nothing;
    told = line;
    tell(peer, line);
  }
  /// Sends a line. Disconnects the peer if that fails, for example because the socket's buffer is full.
  void tell(Peer& peer, const std::string& line) {
    if (!sendLine(peer.socket, line)) drop(peer);
  }
  /// Disconnects a peer. Its members are destroyed in reverse order: the socket after its event source.
  void drop(Peer& peer) { const Peer dropped = std::exchange(peer, {}); }

  EventLoop& loop;
  const Show show;
  Perform perform = [](const std::string&) { return Failure{"the client has not started yet"}; };
  FileDescriptor listener;
  std::filesystem::path path;  ///< the path of the socket
  struct stat made {};         ///< the file of the socket, as `listen` has made it
  EventSource acceptSource;
  EventSource acceptTimer;  ///< for 1 s after accept4 has failed, the listening socket is not watched
  std::list<Peer> peers;
  StatusLine newest;                ///< null until the first status is published
  std::optional<std::string> told;  ///< the last status line sent to any peer; absent if none was sent
};

}  // namespace kestrune
