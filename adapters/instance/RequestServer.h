#pragma once

#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

#include "adapters/instance/InstanceFolders.h"
#include "adapters/loop/EventLoop.h"
#include "ports/StatusFeed.h"

namespace kestrune {

/// Answers the requests of other processes of this user, one line each, on the client's socket:
///
///     status           the newest status, as soon as there is one
///     follow           the same, and then each later one
///     show [TOKEN]     shows the menu; TOKEN is an XDG activation token: "ok"
///     perform ACTION   chooses the row of the menu that has this action: "ok", or "error" and the reason
///
/// Any other line is answered by "error" and a reason. A peer is disconnected when its line is longer than
/// 4096 bytes, when it does not read, or when 64 others have connected after it. Main thread.
class RequestServer {
 public:
  using Show = std::function<void(const std::string& activationToken)>;
  /// Returns why the action cannot be performed; absent when it was.
  using Perform = std::function<std::optional<std::string>(const std::string& action)>;

  RequestServer(EventLoop& loop, Show show, Perform perform);

  /// Creates the socket in `folder`, which must exist, in place of any other. Connected peers stay connected.
  std::error_code listen(const std::string& folder);

  /// Whether the file of the socket still exists.
  bool isInPlace() const;

  /// See StatusFeed.h.
  void publish(StatusLine line);

  /// Renames the socket: a process that connects from now on gets no answer, but notices when this one ends.
  void announceEnd();

 private:
  enum class Wish { nothing, oneStatus, everyStatus };
  struct Peer {
    FileDescriptor socket;
    std::string unread{};
    Wish wish = Wish::nothing;
    EventSource input{};
  };
  using PeerRef = std::shared_ptr<Peer>;

  void accept();
  void add(FileDescriptor socket);
  void read(const PeerRef& peer);
  void answer(const PeerRef& peer, const std::string& line);
  void tellStatus(const PeerRef& peer, const std::string& line);
  void tell(const PeerRef& peer, const std::string& line);
  void drop(const PeerRef& peer);

  EventLoop& loop;
  const Show show;
  const Perform perform;
  FileDescriptor listener;
  std::string place;  ///< the folder of the socket
  EventSource callers;
  EventSource rest;  ///< set while the listener is not polled for lack of descriptors
  std::list<PeerRef> peers;
  StatusLine newest;                ///< null until the first is published
  std::optional<std::string> told;  ///< the last status line that was sent
};

}  // namespace kestrune
