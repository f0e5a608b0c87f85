#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include "adapters/instance/InstanceFolders.h"
#include "adapters/instance/RequestServer.h"
#include "ports/StatusFeed.h"

namespace kestrune {

/// The argument of `Rendezvous::claim`. By default, if another client runs, `claim` asks that client to show
/// its menu, and returns false.
struct Claim {
  bool background = false;        ///< if another client runs, only return false; no effect with `predecessor`
  pid_t predecessor = 0;          ///< if not 0: wait for the end of this client; for any other, return false
  std::string activationToken{};  ///< XDG activation token for the running client; empty when there is none
  Seconds answerPatience{2.0};    ///< longest wait for the answer of the running client
  Seconds endPatience{12.0};      ///< longest wait for the end of another client
};

/// Makes sure that a user has at most one client, and connects the user's other processes to it. The process
/// that holds the lock is the client; the kernel releases the lock when that process ends. The other
/// processes send requests to the client over a socket. Main thread.
class Rendezvous final : public StatusFeed {
 public:
  /// `onShow` runs when a process that starts later asks for the menu. Its argument is the activation token
  /// of that process, or empty. If this process called `keepLockAcrossExec` and then exec, it still holds the
  /// lock, and the constructor takes over this lock.
  Rendezvous(EventLoop& loop, InstanceFolders folders, std::function<void(const std::string&)> onShow);

  /// Tries to become the client. Returns true on success: this process then answers requests. If another
  /// client runs, acts as `claim` says. If another client is ending, waits for its end. Runs the loop
  /// while it waits. In three cases, this process becomes the client without the lock, and prints the reason
  /// on standard error: the lock file cannot be created, the file system supports no locks, or the other
  /// client takes longer than `endPatience` to end.
  bool claim(const Claim& claim);

  /// Call this when this process is about to end. A client that starts later then waits for that end.
  void announceEnd() {
    server.announceEnd();
    isClient = false;
  }

  /// Call this just before exec. Leaves the lock file open in the new program, which takes over the lock.
  void keepLockAcrossExec() const;

  /// Asks the running client to perform the action of a menu row. Runs the loop until the client answers, at
  /// most for `limit`. If the action was not performed, the reason is one line.
  Result<> ask(const std::string& action, Seconds limit = Seconds{2.0});

  std::optional<pid_t> runningClient() const {
    const FileDescriptor socket = folders.connect(runningSocketName);
    return socket ? std::optional(peerOf(socket).pid) : std::nullopt;
  }

  /// Publishes a status line. Also creates the lock and the socket again when they are missing. If that
  /// fails, standard error says why, and the next call tries again.
  void publish(StatusLine line) override {
    if (isClient && !(isLocked(place) && server.isInPlace())) lockAndListen();
    server.publish(std::move(line));
  }

  StatusSubscription subscribe(std::function<void(const std::string&)> onLine,
                               std::function<void()> onAbsence) override;
  void onPerform(RequestServer::Perform perform) override { server.onPerform(std::move(perform)); }

 private:
  bool isLocked(const std::string& folder) const;
  std::error_code takeLock(const std::string& folder);
  void lockAndListen();

  EventLoop& loop;
  const InstanceFolders folders;
  FileDescriptor lock;
  std::string place;  ///< the folder of the lock file
  RequestServer server;
  bool isClient = false;
};

}  // namespace kestrune
