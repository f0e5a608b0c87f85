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

/// How this process competes with a client that runs already.
struct Claim {
  enum class Kind {
    show,     ///< asks the running client to show its menu, and gives up
    giveWay,  ///< gives up when a client runs
    replace,  ///< waits until its predecessor has ended; gives up when any other client runs
  };
  Kind kind = Kind::show;
  pid_t predecessor = 0;          ///< PID of the client to replace
  std::string activationToken{};  ///< passed to the running client; empty without one
  Seconds answerPatience{2.0};    ///< longest wait for an answer of the running client
  Seconds endPatience{12.0};      ///< longest wait for a client that is ending; it needs less
};

/// Makes this process the one client of its user, and lets it and the other processes of the user reach each
/// other. The process that holds the lock is the client; the kernel releases the lock when that process ends.
/// Main thread.
class Rendezvous final : public StatusFeed, public Requests {
 public:
  /// `onShow` runs when a later start asks for the menu, with the activation token of that start or an empty
  /// text. Takes over the lock that was kept across exec.
  Rendezvous(EventLoop& loop, InstanceFolders folders, std::function<void(const std::string&)> onShow);

  /// Runs the loop until it is decided whether this process is the client; a client answers requests from
  /// then on. Waits for a client that is ending, whatever the kind. If nothing can be locked, or the other
  /// client does not end, this process becomes the client all the same, and standard error says why.
  bool claim(const Claim& claim);

  /// From now on, later starts wait until this process has ended.
  void announceEnd();

  /// Keeps the lock open across the exec that follows.
  void passOn() const;

  /// Asks the running client to perform the action of a menu row, and runs the loop until it has. Returns why
  /// it did not, in one line; absent on success. Waits at most `limit` for an answer.
  std::optional<std::string> ask(const std::string& action, Seconds limit = Seconds{2.0});

  /// The PID of the running client; absent when there is none.
  std::optional<pid_t> runningClient() const;

  /// Also creates the lock and the socket again when they are missing. If that fails, standard error says
  /// why, and the next line tries again.
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
  std::string place;  ///< the folder of the lock
  std::function<std::optional<std::string>(const std::string&)> perform;
  RequestServer server;
  bool isClient = false;
};

}  // namespace kestrune
