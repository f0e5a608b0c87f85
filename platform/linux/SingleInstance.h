#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/linux/SessionBus.h"
#include "platform/posix/FileDescriptor.h"

namespace kestrune {

/// Sees to it that one client runs for a user: by a name on the session bus, or, where no bus answers, by a
/// lock on a file. Main thread.
class SingleInstance final : public BusClient {
 public:
  enum class Claim {
    refuse,         ///< another instance that runs is told to show itself, and this one gives up
    refuseQuietly,  ///< another instance that runs makes this one give up
    wait,           ///< this one was started to replace it, and waits for its end
  };

  /// `onActivate` runs whenever a later start has found this instance. `lockPath` is where the lock lies.
  SingleInstance(EventLoop& loop, SessionBus& bus, std::string lockPath, std::function<void()> onActivate);
  ~SingleInstance() override;

  /// Runs the loop until this is the only instance, and returns true; or tells the other one to show itself
  /// and returns false. Waits for the end of another one for 12 s at most, then goes on beside it; so, too,
  /// for one that has announced its end, whatever the kind.
  bool claim(Claim kind);

  /// Later starts wait from now on, instead of giving way to this instance. For the time in which it still
  /// has something to end that a successor must not share.
  void announceEnd();

  void busConnected(sd_bus* bus) override;
  void busLost() override;

 private:
  enum class Outcome { undecided, alone, second };

  void waitForBus();
  void requestName();
  void claimLock();
  bool holderEnds() const;
  void askWhetherOtherEnds();
  void waitForOther();
  void tryAgain(void (SingleInstance::*claimOnceMore)());
  void activateOther();
  static int nameReply(sd_bus_message* reply, void* self, sd_bus_error* error);
  static int nameAcquired(sd_bus_message* signal, void* self, sd_bus_error* error);
  static int endingReply(sd_bus_message* reply, void* self, sd_bus_error* error);
  static int activated(sd_bus_message* call, void* self, sd_bus_error* error);
  static int otherAnswered(sd_bus_message* reply, void* self, sd_bus_error* error);
  static const sd_bus_vtable interface[];

  EventLoop& loop;
  SessionBus& sessionBus;
  const std::string lockPath;
  const std::function<void()> onActivate;

  sd_bus* bus = nullptr;
  BusSlot object, request, acquired, question, call, announcement;
  FileDescriptor lock;
  EventSource activationSignal, deadline, retry;
  std::optional<Claim> kind;  ///< absent until the claim
  Outcome outcome = Outcome::undecided;
  bool otherTold = false;
  bool otherEnds = false;
};

}  // namespace kestrune
