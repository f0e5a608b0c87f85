#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

#include "adapters/instance/InstanceFolders.h"
#include "adapters/instance/RequestServer.h"
#include "ports/StatusFeed.h"

namespace kestrune {

/// How this process tries to become the client.
struct Claim {
  enum class Kind {
    show,     ///< if a client runs, asks that client to show its menu, and exits
    giveWay,  ///< exits when a client runs
    replace,  ///< waits until `predecessor` has ended; exits when any other client runs
  };
  Kind kind = Kind::show;
  pid_t predecessor = 0;          ///< PID of the client to replace; used by `replace` only
  std::string activationToken{};  ///< XDG activation token for the running client; empty when there is none
  Seconds answerPatience{2.0};    ///< longest wait for the answer of the running client
  Seconds endPatience{12.0};      ///< longest wait until an ending client has ended; it normally ends sooner
};

/// The rendezvous: the lock and the socket of the one client of a user. Through it, this process becomes the
/// client, and other processes of the user reach the client. The process that holds the lock is the client;
/// the kernel releases the lock when that process ends. Main thread.
class Rendezvous final : public StatusFeed, public Requests {
 public:
  /// `onShow` runs when a process that starts later asks for the menu. Its argument is the activation token
  /// of that process, or empty. The constructor takes over the lock, if the lock was kept open across exec.
  Rendezvous(EventLoop& loop, InstanceFolders folders, std::function<void(const std::string&)> onShow);

  /// Runs the loop until it is decided whether this process is the client, and returns the decision. If this
  /// process is the client, it answers requests from now on. Waits for a client that is ending, whatever the
  /// kind of the claim. If nothing can be locked, or the ending client does not end, this process becomes the
  /// client all the same, and standard error says why.
  bool claim(const Claim& claim);

  /// From now on, a process that starts later waits until this process has ended.
  void announceEnd();

  /// Keeps the lock open across the exec that this process is about to do.
  void passOn() const;

  /// Asks the running client to perform the action of a menu row, and runs the loop until it answers, at most
  /// for `limit`. Returns one line that says why the action was not performed; absent on success.
  std::optional<std::string> ask(const std::string& action, Seconds limit = Seconds{2.0});

  /// Returns the PID of the running client; absent when no client runs.
  std::optional<pid_t> runningClient() const;

  /// Publishes a status line. Also creates the lock and the socket again when they are missing. If that
  /// fails, standard error says why, and the next call tries again.
  void publish(StatusLine line) override;

  std::unique_ptr<StatusSubscription> subscribe(std::function<void(const std::string&)> onLine,
                                                std::function<void()> onAbsence) override;
  void onPerform(std::function<std::optional<std::string>(const std::string&)> perform) override;

 private:
  class Attempt;

  bool isLocked() const;
  std::error_code takeLock(const std::string& folder);
  void takePlace();

  EventLoop& loop;
  const InstanceFolders folders;
  FileDescriptor lock;
  std::string place;  ///< the folder of the lock file
  std::function<std::optional<std::string>(const std::string&)> perform;
  RequestServer server;
  bool isClient = false;
};

}  // namespace kestrune
