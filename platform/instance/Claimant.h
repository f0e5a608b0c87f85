#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "platform/instance/InstanceFolders.h"
#include "platform/instance/InstanceLock.h"
#include "platform/linux/EventLoop.h"

namespace kestrune {

/// What a start does when another client runs.
struct Claim {
  enum class Kind {
    show,     ///< asks it to show its menu, and gives up
    giveWay,  ///< gives up
    replace,  ///< was started by it to replace it, and waits for its end
  };
  Kind kind = Kind::show;
  std::string activationToken{};  ///< for the other client; empty without one
  Seconds answerPatience{2.0};    ///< with a client that does not answer
  Seconds endPatience{12.0};      ///< with a client that ends: its stop takes less
};

/// A start that finds out whether it becomes the client: it gets the lock, or there is a socket of whoever
/// has it. A client that is ending is waited for, whatever the kind of the claim. Main thread.
class Claimant {
 public:
  /// All of these outlive this.
  Claimant(EventLoop& loop, const InstanceFolders& folders, InstanceLock& lock, const Claim& claim);

  /// Runs the loop until it is clear; true for the client. It holds the lock, but where it cannot be had or
  /// the patience with another one has ended.
  bool run();

 private:
  enum class Outcome { undecided, client, second };

  void look();
  void wait();
  void askToShow();
  void hear();
  void lookAgainSoon();
  void endOfPatience();
  void setPatience(bool forEnd);

  EventLoop& loop;
  const InstanceFolders& folders;
  InstanceLock& lock;
  const Claim& claim;
  Outcome outcome = Outcome::undecided;
  bool waitsForEnd = false;
  std::optional<pid_t> predecessor;
  FileDescriptor other;  ///< connected to the other client
  EventSource input, deadline, retry;
};

}  // namespace kestrune
