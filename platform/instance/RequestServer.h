#pragma once

#include <sys/types.h>

#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

#include "platform/instance/InstanceFolders.h"
#include "platform/linux/EventLoop.h"

namespace kestrune {

/// Answers the requests of other processes of this user, one line each, on the client's socket:
///
///     status           the newest status, as soon as there is one
///     follow           the same, and then each later one
///     show [TOKEN]     shows the menu; TOKEN is an activation token of the desktop: "ok"
///     perform ACTION   chooses the row of the menu that has this action: "ok", or "error" and the reason
///
/// Any other line is answered by "error" and a reason. Whoever sends a line without an end, or does not read,
/// is disconnected. Main thread.
class RequestServer {
 public:
  struct Handlers {
    std::function<void(const std::string& activationToken)> show;
    /// Returns why the action cannot be performed; absent when it was.
    std::function<std::optional<std::string>(const std::string& action)> perform;
  };

  RequestServer(EventLoop& loop, Handlers handlers);

  /// Puts the socket into `folder`, which exists, in place of any other. Those who are connected stay so.
  std::error_code listen(const std::string& folder);

  /// Whether the socket is where it was put.
  bool isInPlace() const;

  /// The newest status, a text without a line end. The same text as before is not told again.
  void publish(const std::string& status);

  /// Renames the socket: who connects from now on gets no answer, but notices the end of this process.
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
  void tellStatus(const PeerRef& peer);
  void tell(const PeerRef& peer, const std::string& line);
  void drop(const PeerRef& peer);

  EventLoop& loop;
  const Handlers handlers;
  FileDescriptor listener;
  std::string place;  ///< the folder of the socket
  dev_t device = 0;   ///< with the next, the file of the socket
  ino_t inode = 0;
  EventSource callers;
  EventSource rest;  ///< while there are no descriptors for another peer
  std::list<PeerRef> peers;
  std::optional<std::string> newest;
};

}  // namespace kestrune
