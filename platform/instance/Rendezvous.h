#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/Requests.h"
#include "platform/StatusFeed.h"
#include "platform/instance/Claimant.h"
#include "platform/instance/InstanceFolders.h"
#include "platform/instance/InstanceLock.h"
#include "platform/instance/RequestServer.h"

namespace kestrune {

/// Makes this process the one client of its user, and lets it and other processes of the user find each
/// other. Main thread.
class Rendezvous final : public StatusFeed, public Requests {
 public:
  /// `onShow` runs when a later start, which ends, asks the client to show its menu; with the activation
  /// token of that start, or an empty text.
  Rendezvous(EventLoop& loop, InstanceFolders folders,
             std::function<void(const std::string& activationToken)> onShow);

  /// Runs the loop until it is clear whether this process is the client. If it is, it takes requests from
  /// then on. It also is where nothing can be locked or a predecessor does not end; standard error says so.
  bool claim(const Claim& claim);

  /// Later starts wait for the end of this process from now on, instead of giving way to it.
  void announceEnd();

  /// Keeps the claim for the program that this process becomes by exec.
  void passOn() const { lock.passOn(); }

  /// The process of the client that runs; absent when there is none.
  std::optional<pid_t> runningClient() const;

  // StatusFeed

  /// Also sees to it that the lock and the socket are in place. Where they cannot be, standard error says
  /// why, and the next line is another occasion.
  void publish(const std::string& line) override;
  /// A client that says nothing for 2 s counts as absent, until its socket is made anew.
  std::unique_ptr<StatusSubscription> subscribe(std::function<void(const std::string&)> onLine,
                                                std::function<void()> onAbsence) override;

  // Requests
  void onPerform(std::function<std::optional<std::string>(const std::string& action)> perform) override;

 private:
  void takePlace();

  EventLoop& loop;
  const InstanceFolders folders;
  InstanceLock lock;
  std::function<std::optional<std::string>(const std::string& action)> perform;
  RequestServer server;
  bool isClient = false;
};

}  // namespace kestrune
