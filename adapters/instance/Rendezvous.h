#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

#include "adapters/instance/InstanceFolders.h"
#include "adapters/instance/RequestServer.h"
#include "ports/Requests.h"
#include "ports/StatusFeed.h"

namespace kestrune {

/// How a start claims to be the client.
struct Claim {
  enum class Kind {
    show,     ///< asks a client that runs to show its menu, and gives up
    giveWay,  ///< gives up when a client runs
    replace,  ///< waits for the end of its predecessor, and gives up when any other client runs
  };
  Kind kind = Kind::show;
  pid_t predecessor = 0;          ///< the process that is replaced
  std::string activationToken{};  ///< for the client that runs; empty without one
  Seconds answerPatience{2.0};    ///< with a client that does not answer
  Seconds endPatience{12.0};      ///< with a client that is ending, which takes less
};

/// Makes this process the one client of its user, and lets it and the other processes of the user find each
/// other. The process that holds the lock is the client; the kernel releases it when the process ends. Main
/// thread.
class Rendezvous final : public StatusFeed, public Requests {
 public:
  /// `onShow` runs when a later start asks the client to show its menu, with the activation token of that
  /// start or an empty text. Takes over the lock that was passed on to this program.
  Rendezvous(EventLoop& loop, InstanceFolders folders, std::function<void(const std::string&)> onShow);

  /// Runs the loop until it is clear whether this process is the client; a client takes requests from then
  /// on. A client that is ending is waited for, whatever the kind of the claim. Where nothing can be locked,
  /// or the other client does not end, this process is the client all the same, and standard error says why.
  bool claim(const Claim& claim);

  /// From now on, later starts wait for the end of this process.
  void announceEnd();

  /// Keeps the lock for the program that this process is about to become by exec.
  void passOn() const;

  /// Runs the loop until the client that runs has chosen the row of its menu with that action. Returns why it
  /// did not, in one line; absent when it did. One that says nothing is waited for until `patience` is over.
  std::optional<std::string> ask(const std::string& action, Seconds patience = Seconds{2.0});

  /// The process of the client that runs; absent when there is none.
  std::optional<pid_t> runningClient() const;

  /// Also makes lock and socket anew where they are gone or could not be made before. When that fails,
  /// standard error says why, and the next line is another occasion.
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
